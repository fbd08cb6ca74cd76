// The radio control's channels, live, and their calibration.

import {$, get, make, post} from "./api.js";

const period = 300; // ms between two looks
const states = ["not there", "there", "being calibrated"];
let isLooking = false;
let step = -1; // of the calibration; -1: none is going on

// What a person does, and what is sent afterwards.
const steps = [
    {say: "Switch the radio control on. The calibration changes the ends and centres of all its channels.", then: "begin_ends", button: "Begin"},
    {say: "Move every stick and switch to both of its ends, slowly, several times. Then let go.", then: "finish_ends", button: "All were moved"},
    {say: "Bring every stick to its centre, and leave it there.", then: "take_centres", button: "All are centred"},
];

const chosen = () => Number($("receiver").value);

function showStep(text = "") {
    const isGoing = step >= 0;
    $("calibrate").textContent = isGoing ? steps[step].button : "Calibrate";
    $("rc-said").textContent = text || (isGoing ? `Step ${step + 1} of ${steps.length}: ${steps[step].say}` : "");
    $("receiver").disabled = isGoing;
    $("calibrate").disabled = false;
    $("calibrate-anew").hidden = step < 1;
}

async function goOn() {
    if (step < 0) {
        step = 0;
        showStep();
        return;
    }
    $("calibrate").disabled = true; // a second press would be taken as that of the next step
    $("calibrate-anew").hidden = true;
    $("rc-said").textContent = "…";
    try {
        await post("rc/calibration", {receiver: chosen(), step: steps[step].then});
    } catch (error) {
        showStep(`Step ${step + 1} of ${steps.length} was not taken: ${error.message}`);
        return;
    }
    step = step + 1 < steps.length ? step + 1 : -1;
    showStep(step < 0 ? "Calibrated. The channels below show the new ends and centres." : "");
}

function rowOf(channel, i) {
    const bar = make("meter", {min: -1, max: 1, value: channel.value});
    bar.setAttribute("aria-label", `Channel ${i + 1}`);
    return make("tr", {}, make("th", {scope: "row", textContent: i + 1}), make("td", {textContent: channel.function}),
        make("td", {}, bar), ...[channel.value.toFixed(2), channel.raw, channel.min, channel.centre, channel.max]
            .map((text) => make("td", {textContent: text})));
}

async function look() {
    if ($("rc").hidden) {
        isLooking = false;
        return;
    }
    if (!document.hidden) {
        try {
            const receiver = (await get("rc")).receivers[chosen() - 1];
            $("rc-state").textContent = `The receiver is ${states[receiver.state] ?? "in an unknown state"}.`;
            $("channels").tBodies[0].replaceChildren(...receiver.channels.map(rowOf));
        } catch (error) {
            $("rc-state").textContent = error.message;
        }
    }
    setTimeout(look, period);
}

export function openRc() {
    $("calibrate").onclick = goOn;
    $("calibrate-anew").onclick = () => {
        step = 0;
        showStep();
    };
    $("receiver").onchange = () => showStep();
    if (!$("channels").tHead.rows.length) {
        $("channels").tHead.insertRow().append(...["No.", "Function", "Position", "Value", "Raw", "Least", "Centre", "Most"]
            .map((name) => make("th", {scope: "col", textContent: name})));
    }
    if (!isLooking) {
        isLooking = true;
        look();
    }
}
