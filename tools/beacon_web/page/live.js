// The live picture: takes fragments of a film and plays them at their newest end.

const target = 0.06; // seconds that the player is to stay behind the newest picture
const tooFar = 1; // seconds behind at which it jumps
const kept = 10; // seconds of film that stay in memory
const mostWaiting = 300; // pieces for a player that does not open: the page was never shown

const Source = window.ManagedMediaSource ?? window.MediaSource;

export class Player {
    constructor(video) {
        this.video = video;
        this.queue = [];
        this.buffer = null;
        this.jumps = 0;
        this.problem = Source ? "" : "This browser cannot play a live stream (it has no Media Source Extensions).";
    }

    // A stream that is coded so begins: its header is the next thing to append.
    begin(codec) {
        this.problem = "";
        if (!Source) {
            this.problem = "This browser cannot play a live stream (it has no Media Source Extensions).";
            return;
        }
        const type = `video/mp4; codecs="${codec}"`;
        if (!Source.isTypeSupported(type)) {
            this.problem = `This browser cannot play this kind of H.264 (${codec}).`;
            return;
        }
        this.end();
        const source = new Source();
        this.source = source;
        this.hasPlayed = false;
        this.isStale = false;
        this.address = URL.createObjectURL(source);
        source.addEventListener("sourceopen", () => {
            if (this.source !== source) {
                return;
            }
            if (this.isStale) {
                this.failed = true;
                return;
            }
            this.buffer = source.addSourceBuffer(type);
            this.buffer.addEventListener("updateend", () => {
                this.follow();
                this.pump();
            });
            this.pump();
        }, {once: true});
        this.video.src = this.address;
    }

    end() {
        this.queue = [];
        this.buffer = null;
        this.source = null;
        if (this.address) {
            URL.revokeObjectURL(this.address);
            this.address = null;
            this.video.removeAttribute("src");
            this.video.load();
        }
    }

    append(bytes) {
        if (!this.source || this.isStale) {
            return;
        }
        this.queue.push(bytes);
        if (!this.buffer && this.queue.length > mostWaiting) {
            this.isStale = true;
            this.queue = [];
        }
        this.pump();
    }

    pump() {
        if (!this.buffer || this.buffer.updating || this.queue.length === 0) {
            return;
        }
        const piece = new Uint8Array(this.queue.reduce((size, each) => size + each.byteLength, 0));
        let at = 0;
        for (const each of this.queue) {
            piece.set(new Uint8Array(each), at);
            at += each.byteLength;
        }
        this.queue = [];
        try {
            this.buffer.appendBuffer(piece);
        } catch (error) {
            this.failed = true; // the connection is made anew
        }
    }

    // Seconds between what is shown and the newest picture; null: nothing is shown.
    behind() {
        const ranges = this.video.buffered;
        return this.hasPlayed && ranges.length ? ranges.end(ranges.length - 1) - this.video.currentTime : null;
    }

    // Stays close to the newest picture. The player's "waiting" is of no use for that: so near to
    // the end it waits for every picture.
    follow() {
        const ranges = this.video.buffered;
        if (ranges.length === 0) {
            return;
        }
        const end = ranges.end(ranges.length - 1);
        const begin = ranges.start(ranges.length - 1);
        if (!this.hasPlayed) {
            this.hasPlayed = true;
            this.video.currentTime = Math.max(begin, end - target);
            this.video.play().catch(() => {});
            return;
        }
        const ahead = end - this.video.currentTime;
        if (ahead > tooFar || ahead < -tooFar) {
            this.jumps += 1;
            this.video.currentTime = Math.max(begin, end - target);
        }
        if (this.video.paused && !document.hidden) {
            this.video.play().catch(() => {});
        }
        this.video.playbackRate = ahead > target + 0.05 ? 1.25 : ahead > target ? 1.06 : 1;
        if (end - begin > 2 * kept && !this.buffer.updating) {
            this.buffer.remove(0, end - kept);
        }
    }
}
