// The board's sound: off until the person asks for it.

import {$} from "./api.js";

const rate = 16000; // samples a second, one channel, 16 bits each
const target = 0.1; // seconds from a piece's arrival until it is heard
const most = 0.25; // seconds; then pieces are left out until it is the target again
const head = 8; // bytes before the samples: size, "sowt"

let send = null;
let context = null; // null: it is off
let gain = null;
let next = 0; // the sample of the context's time at which the next piece begins
let isDropping = false;

export function isSound(message) {
    return message.byteLength >= head && new DataView(message).getUint32(4) === 0x736f7774;
}

// After a new connection: the console knows nothing of earlier wishes.
export function askForSound() {
    if (context) {
        send({sound: true});
    }
}

function samplesOf(message) {
    const bytes = new DataView(message, head);
    const buffer = context.createBuffer(1, bytes.byteLength / 2, rate);
    const samples = buffer.getChannelData(0);
    for (let i = 0; i < samples.length; ++i) {
        samples[i] = bytes.getInt16(2 * i, true) / 32768;
    }
    return buffer;
}

// Each piece begins where the one before ends. Where nothing is left to be heard, or too much is,
// the distance to the target is made up for at once.
export function takeSound(message) {
    if (context?.state !== "running") {
        return;
    }
    const now = Math.ceil(context.currentTime * rate);
    if (next < now) {
        next = now + target * rate;
    }
    const ahead = (next - now) / rate;
    isDropping = ahead > most || (isDropping && ahead > target);
    if (isDropping) {
        return;
    }
    const piece = context.createBufferSource();
    piece.buffer = samplesOf(message);
    piece.connect(gain);
    piece.start(next / rate);
    next += piece.buffer.length;
}

// What the console says of it: a sentence, or "".
export function showSound(problem) {
    const text = context ? problem : "";
    if ($("sound-said").textContent !== text) {
        $("sound-said").textContent = text; // once: a screen reader says it each time
    }
    if (context && context.state !== "running") {
        context.resume().catch(() => {}); // a phone call, or another device
    }
}

function setVolume() {
    if (gain) {
        gain.gain.value = $("volume").value / 100;
    }
}

function turn() {
    if (context) {
        context.close();
        context = gain = null;
        send({sound: false});
        $("sound-said").textContent = "";
    } else {
        // With the samples' own rate nothing has to be fitted in between two pieces.
        context = new AudioContext({sampleRate: rate});
        gain = context.createGain();
        gain.connect(context.destination);
        next = 0;
        setVolume();
        send({sound: true});
    }
    $("sound").textContent = context ? "Mute" : "Sound";
    $("volume").hidden = !context;
}

// `tell` sends a message to the console.
export function startSound(tell) {
    send = tell;
    $("sound").onclick = turn;
    $("volume").oninput = setVolume;
}
