// The movement list.

import {$, get, make, post, put, tell} from "./api.js";

// In the order of the list, see docs/settings.md.
const columns = ["Pan", "Tilt", "Roll", "Zoom", "Exposure", "Focus x", "Focus y", "Delay s", "Shot", "Manual focus", "Hold"];
const most = 20;
let changes = 0; // since the list came
let isStored = false; // the board's list is the one shown

const rows = () => [...$("steps").tBodies[0].rows];

function mark(current) {
    rows().forEach((row, i) => {
        row.toggleAttribute("data-current", i === current);
        row.cells[0].setAttribute("aria-current", i === current ? "step" : "false");
    });
}

// The board counts in its own list: while another one is shown, its numbers mean other rows.
function setStored(now) {
    isStored = now;
    for (const go of document.querySelectorAll("#steps .go")) {
        go.disabled = !isStored;
    }
    if (!isStored) {
        mark(-1);
    }
}

function noteChange() {
    ++changes;
    setStored(false);
    $("steps-said").textContent = "Not saved yet. \"Go\" plays the board's list: save this one first.";
}

// Numbers the rows, also in the names of what is in them.
function nameRows() {
    rows().forEach((row, i) => {
        row.cells[0].textContent = i + 1;
        for (const each of row.querySelectorAll("[data-name]")) {
            each.setAttribute("aria-label", `${each.dataset.name} movement ${i + 1}`);
        }
    });
}

function addStep(values = []) {
    const body = $("steps").tBodies[0];
    if (body.rows.length >= most) {
        $("steps-said").textContent = `The board keeps at most ${most} movements.`;
        return false;
    }
    const row = body.insertRow();
    row.append(make("th", {scope: "row"}));
    columns.forEach((name, i) => {
        const input = make("input", {value: values[i] ?? "", size: 4, inputMode: "decimal"});
        input.dataset.name = `${name},`;
        row.insertCell().append(input);
    });
    const go = make("button", {type: "button", className: "go", textContent: "Go"});
    go.dataset.name = "Go to";
    go.onclick = () => tell($("steps-said"), () => post("movement", {do: "move", step: row.sectionRowIndex}));
    const drop = make("button", {type: "button", textContent: "Delete"});
    drop.dataset.name = "Delete";
    drop.onclick = () => {
        row.remove();
        nameRows();
        noteChange();
    };
    row.insertCell().append(go, " ", drop);
    nameRows();
    return true;
}

function allowChanges(isAllowed) {
    for (const id of ["add-step", "save-steps"]) {
        $(id).disabled = !isAllowed;
    }
}

// Until the list has come there is nothing to change: it would replace the board's.
export const openMovements = () => tell($("steps-said"), async () => {
    allowChanges(false);
    setStored(false);
    $("steps").tBodies[0].replaceChildren();
    const section = await get("settings/automovement");
    const list = section.fields.find((field) => field.key === "automove_list").value;
    $("steps").tBodies[0].replaceChildren();
    for (const step of list.split(";").filter((each) => each.includes(","))) {
        addStep(step.split(","));
    }
    changes = 0;
    setStored(true);
    allowChanges(true);
});

const save = () => tell($("steps-said"), async () => {
    const steps = rows().map((row) => [...row.querySelectorAll("input")].map((input) => input.value.trim()).join(","));
    const sent = changes;
    await put("settings/automovement", {automove_list: steps.join(";")});
    if (changes !== sent) {
        return "Saved, but not what was changed meanwhile.";
    }
    setStored(true);
    return "Saved.";
});

export function showMovement(status) {
    mark(isStored && status?.movement_running ? status.movement_index : -1);
}

export function startMovements() {
    $("steps").tHead.insertRow().append(make("th", {scope: "col", textContent: "No."}),
        ...columns.map((name) => make("th", {scope: "col", textContent: name})), make("th", {scope: "col", textContent: ""}));
    $("add-step").onclick = () => {
        if (addStep()) {
            noteChange();
        }
    };
    $("steps").tBodies[0].oninput = noteChange;
    $("save-steps").onclick = save;
    for (const button of document.querySelectorAll("[data-do]")) {
        button.onclick = () => tell($("steps-said"), () => post("movement", {do: button.dataset.do}));
    }
}
