// The gimbal pad: finger, mouse, keys and game controllers. What is held is repeated, so that the
// console can stop the gimbal when this page falls silent.

import {$} from "./api.js";

const period = 80; // ms between two messages while the gimbal is held

export function startPad(send) {
    const pad = $("pad");
    const knob = $("knob");
    const roll = $("roll");
    const keys = new Set();
    const sources = {drag: [0, 0, 0], keys: [0, 0, 0], roll: [0, 0, 0], game: [0, 0, 0]};
    let held = false;

    const limit = (value) => Math.max(-1, Math.min(1, value));

    function sum() {
        const total = [0, 0, 0];
        for (const values of Object.values(sources)) {
            values.forEach((value, i) => {
                total[i] = limit(total[i] + value);
            });
        }
        return total;
    }

    function beat() {
        const values = sum();
        const moves = values.some((value) => value !== 0);
        if (moves || held) {
            send({gimbal: values});
        }
        held = moves;
        knob.style.setProperty("transform", `translate(${values[0] * 3.2}rem, ${-values[1] * 3.2}rem)`);
    }

    function release() {
        for (const values of Object.values(sources)) {
            values.fill(0);
        }
        keys.clear();
        roll.value = 0;
        held = true;
        beat();
    }

    function drag(event) {
        const box = pad.getBoundingClientRect();
        sources.drag[0] = limit((event.clientX - box.left) / box.width * 2 - 1);
        sources.drag[1] = limit(1 - (event.clientY - box.top) / box.height * 2);
        beat();
    }

    pad.addEventListener("pointerdown", (event) => {
        pad.setPointerCapture(event.pointerId);
        drag(event);
    });
    pad.addEventListener("pointermove", (event) => {
        if (pad.hasPointerCapture(event.pointerId)) {
            drag(event);
        }
    });
    for (const name of ["pointerup", "pointercancel", "lostpointercapture"]) {
        pad.addEventListener(name, () => {
            sources.drag.fill(0);
            beat();
        });
    }

    const axes = {ArrowLeft: [0, -1], ArrowRight: [0, 1], ArrowUp: [1, 1], ArrowDown: [1, -1],
        q: [2, -1], e: [2, 1]};
    function takeKeys() {
        sources.keys.fill(0);
        for (const key of keys) {
            sources.keys[axes[key][0]] += axes[key][1] * 0.6;
        }
        beat();
    }
    pad.addEventListener("keydown", (event) => {
        const key = event.key.length === 1 ? event.key.toLowerCase() : event.key;
        if (axes[key]) {
            event.preventDefault();
            if (!event.repeat) {
                keys.add(key);
                takeKeys();
            }
        }
    });
    pad.addEventListener("keyup", (event) => {
        const key = event.key.length === 1 ? event.key.toLowerCase() : event.key;
        if (keys.delete(key)) {
            takeKeys();
        }
    });
    pad.addEventListener("blur", release);
    roll.addEventListener("input", () => {
        sources.roll[2] = Number(roll.value) / 100;
        beat();
    });
    for (const name of ["change", "pointerup", "blur"]) {
        roll.addEventListener(name, () => {
            roll.value = 0;
            sources.roll.fill(0);
            beat();
        });
    }
    window.addEventListener("blur", release);
    window.addEventListener("pagehide", release);
    document.addEventListener("visibilitychange", () => {
        if (document.hidden) {
            release();
        }
    });

    // A stick counts once it has been seen at rest. Of other controllers nobody knows which axis is
    // a stick: a throttle never rests.
    let chosen = null;
    const rested = new Set();
    function readGamepad() {
        const game = [...(navigator.getGamepads?.() ?? [])].find((each) => each?.mapping === "standard");
        if (chosen !== game?.id) {
            chosen = game?.id;
            rested.clear();
        }
        const axis = (i) => {
            const value = game?.axes[i] ?? 0;
            if (Math.abs(value) <= 0.12) {
                rested.add(i);
                return 0;
            }
            return rested.has(i) && document.hasFocus() ? value : 0;
        };
        sources.game = [axis(0), -axis(1), axis(2)];
    }
    setInterval(() => {
        readGamepad();
        beat();
    }, period);
}
