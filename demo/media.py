"""The media demo: one picture, recorded, pulled by RTSP and SRT and pushed by RTMP.

A test source, the daemon and its media helpers run on a board; ffprobe, srt-live-transmit and nginx
are the other sides. Every road's frames are counted. The exit status is 0 when all of them
delivered. Needs root; script/demo --media builds the programs first.
"""

import argparse
import json
import os
import signal
import socket
import subprocess
import sys
import tempfile
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(REPOSITORY / "sandbox"))

from board import Board, Daemon, require_root, wait_until  # noqa: E402
from rtmp_server import NGINX  # noqa: E402

SETTINGS = """recording_place=2
audio_enabled=1
rtsp_server_enabled=1
stream_rtmp_enabled=1
stream_rtmp_url=rtmp://127.0.0.9/live
stream_rtmp_key=demo
stream_srt_enabled=1
stream_srt_url=srt://:9000?mode=listener
"""
HELPERS = ("recorder", "rtsp-server-manager", "rtmp-restreamer", "srt-restreamer")


class Stage:
    """The board, and the programs on it; their messages go to a file."""

    def __init__(self, board, build, folder, seconds):
        self.board, self.build, self.messages = board, build, folder / "messages"
        self.seconds = seconds  # to watch each stream
        self.environment = {"GST_REGISTRY": str(build / "gstreamer-registry.bin")}

    def run(self, program, *options, output=None):
        with open(self.messages, "ab") as messages:
            return self.board.popen(program, *options, env=self.environment,
                                    stdin=subprocess.DEVNULL, stdout=output or messages,
                                    stderr=messages)

    def number(self, name):
        path = self.board.path(f"/run/quillorbeacon/{name}.info")
        return int(path.read_text() or 0) if path.exists() else None

    def record(self, is_on):
        command = b'{"cmd":"updateconfig","param":"rec","value":"%d"}' % is_on
        with self.board.socket(socket.SOCK_DGRAM) as sender:
            sender.sendto(b"R" + bytes(11) + command, ("127.0.0.1", 5252))

    def streams(self, address, *options):
        """ffprobe's records of the streams, by their types."""
        # Quiet: who comes in the middle misses pictures that later ones refer to.
        text = self.board.run("/usr/bin/ffprobe", "-v", "fatal", *options, "-show_entries",
                              "stream=codec_name,codec_type,nb_read_frames,width,height", "-of",
                              "json", address, timeout=60)
        return {stream["codec_type"]: stream for stream in json.loads(text)["streams"]}

    def probe(self, address):
        """What is in a recording: the number of its pictures, and all in words."""
        return in_words(self.streams(address, "-count_frames"))

    def live(self, address, *options):
        """What comes in a stream in a time that begins with the first picture; sound may lead."""
        found = self.streams(address, *options)
        pictures = self.streams(address, *options, "-select_streams", "v", "-count_frames",
                                "-read_intervals", f"%+{self.seconds}")
        return in_words({**found, **pictures})


def in_words(streams):
    video = streams.get("video", {})
    frames = int(video.get("nb_read_frames", 0))
    sound = " and " + streams["audio"]["codec_name"] if "audio" in streams else ""
    return frames, (f"{frames} frames of {video.get('codec_name')}, "
                    f"{video.get('width')}x{video.get('height')}{sound}")


def child_of(process):
    children = Path(f"/proc/{process.pid}/task/{process.pid}/children")
    return int(wait_until(lambda: children.read_text().split(), "the program's process")[0])


def pull_srt(stage):
    received = stage.board.path("/tmp/srt.ts")
    with open(received, "wb") as output:
        pull = stage.run("/usr/bin/srt-live-transmit", "-q", "srt://127.0.0.1:9000", "file://con",
                         output=output)
        wait_until(lambda: received.stat().st_size > 200000 * stage.seconds, "the stream by SRT", 60.0)
        os.kill(child_of(pull), signal.SIGKILL)
        pull.wait()
    return stage.probe("/tmp/srt.ts")


def show(road, result):
    frames, words = result
    print(f"  {road:<34} {words}", flush=True)
    return frames > 0


def play(stage, folder):
    board = stage.board
    board.write("/run/quillorbeacon/config.conf", SETTINGS)
    daemon = Daemon(board, stage.build / "quillorbeacon", folder / "daemon")
    daemon.wait_ready()
    board.write("/tmp/nginx.conf", NGINX)
    stage.run("/usr/sbin/nginx", "-p", "/tmp", "-e", "/tmp/nginx.log", "-c", "/tmp/nginx.conf")
    source = stage.run(stage.build / "beacon-source", "test", "--size", "640x360", "--bitrate",
                       "1500", "--audio", "test")
    for helper in HELPERS:
        stage.run(stage.build / "media" / helper)
    wait_until(lambda: stage.number("recorder") == 0, "the recorder", 60.0)
    stage.record(True)
    wait_until(lambda: stage.number("rtmp-streamer"), "the stream by RTMP", 60.0)
    wait_until(lambda: stage.number("recorder"), "a film", 60.0)
    print("One picture from beacon-source, through the daemon:", flush=True)
    results = [
        show("rtsp://BOARD:8554/live, over TCP",
             stage.live("rtsp://127.0.0.1:8554/live", "-rtsp_transport", "tcp")),
        show("rtsp://BOARD:8554/live, over UDP",
             stage.live("rtsp://127.0.0.1:8554/live", "-rtsp_transport", "udp")),
        show("rtmp://SERVER/live/demo, by nginx", stage.live("rtmp://127.0.0.9/live/demo")),
        show("srt://BOARD:9000", pull_srt(stage)),
    ]
    os.kill(child_of(source), signal.SIGTERM)
    source.wait(20)
    stage.record(False)
    wait_until(lambda: stage.number("recorder") == 0, "the film's end", 30.0)
    # The last one: where a picture comes before any sound, another film begins with the sound.
    film = max(board.path("/media").glob("DCIM/*/*.mp4"))
    name = "/" + str(film.relative_to(board.path("/")))
    results.append(show(name, stage.probe(name)))
    return all(results)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=Path, default=REPOSITORY / "build/release")
    parser.add_argument("--seconds", type=int, default=3, help="to watch each stream")
    options = parser.parse_args()
    build = options.build.resolve()
    require_root()
    with tempfile.TemporaryDirectory() as folder, Board(build) as board:
        stage = Stage(board, build, Path(folder), options.seconds)
        try:
            is_whole = play(stage, Path(folder))
        except (AssertionError, subprocess.CalledProcessError, ValueError) as failure:
            print(f"demo: {failure}", file=sys.stderr)
            is_whole = False
        if not is_whole and stage.messages.exists():
            sys.stderr.write(stage.messages.read_text(errors="replace"))
    sys.exit(0 if is_whole else 1)


if __name__ == "__main__":
    main()
