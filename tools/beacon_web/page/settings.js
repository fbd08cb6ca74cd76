// The settings by section, as forms that the console's tables describe.

import {$, ask, get, make, post, put, tell} from "./api.js";

let shown = null; // the section's fields as the board has them

const title = (key) => key.replaceAll("_", " ").replace(/^./, (letter) => letter.toUpperCase());

function control(field) {
    const id = `field-${field.key}`;
    if (field.kind === "flag") {
        return make("input", {id, type: "checkbox", checked: Number(field.value) !== 0});
    }
    if (field.kind === "choice") {
        const select = make("select", {id});
        const choices = field.choices ?? [];
        if (!choices.some(([value]) => value === field.value)) {
            select.append(make("option", {value: field.value, textContent: field.value || "(not set)"}));
        }
        for (const [value, label] of choices) {
            select.append(make("option", {value, textContent: label}));
        }
        select.value = field.value;
        return select;
    }
    if (field.secret) {
        return make("input", {id, type: "password", autocomplete: "new-password",
            placeholder: field.is_set ? "set; type to replace it" : "not set"});
    }
    const input = make("input", {id, value: field.value});
    if (field.kind === "number") {
        input.inputMode = "numeric";
    }
    return input;
}

// An empty field leaves a secret as it is, so removing one needs a control of its own.
function removal(field, element) {
    const box = make("input", {id: `remove-${field.key}`, type: "checkbox"});
    box.onchange = () => {
        element.value = "";
        element.disabled = box.checked;
    };
    return make("label", {className: "remove"}, box, " Remove", make("span", {className: "unseen", textContent: `: ${title(field.key)}`}));
}

const valueOf = (field, element) => (field.kind === "flag" ? (element.checked ? "1" : "0") : element.value);

const before = (field) => (field.secret ? "" : field.kind === "flag" ? (Number(field.value) !== 0 ? "1" : "0") : field.value);

// The modes that the screen supports, as the board tells them, and those of the TV-out.
function displayModes(more) {
    const modes = [["Preferred by the screen", {output: "hdmi", group: ""}]];
    for (const [group, list] of [["CEA", more.cea_modes], ["DMT", more.dmt_modes]]) {
        for (const mode of Array.isArray(list) ? list : []) {
            modes.push([`HDMI, ${group} ${mode}`, {output: "hdmi", group, mode}]);
        }
    }
    for (const standard of ["PAL", "NTSC"]) {
        for (const aspect of ["4:3", "14:9", "16:9"]) {
            modes.push([`TV-out, ${standard} ${aspect}`, {output: "tv", standard, aspect}]);
        }
    }
    const select = make("select", {id: "display-mode"},
        ...modes.map(([name], i) => make("option", {value: i, textContent: name})));
    const change = (keep) => tell($("outcome"), async () => {
        if (!keep || await ask("The board stores this mode, and may reboot. Keep it?")) {
            await post("display-mode", {...modes[select.value][1], keep});
            return keep ? "Sent." : "Sent. It lasts until the board restarts.";
        }
        return "";
    });
    const button = (text, keep) => make("button", {type: "button", textContent: text, onclick: () => change(keep)});
    return make("div", {className: "field"}, make("label", {htmlFor: select.id, textContent: "Mode of the video output"}),
        select, make("div", {className: "row"}, button("Try it", false), button("Keep it", true)));
}

function show(section) {
    // The movement list has a tab of its own.
    shown = {...section, fields: section.fields.filter((field) => field.key !== "automove_list")};
    const rows = shown.fields.map((field) => {
        const element = control(field);
        const problem = make("p", {className: "problem", id: `problem-${field.key}`});
        element.setAttribute("aria-describedby", `help-${field.key} problem-${field.key}`);
        return make("div", {className: "field"},
            make("label", {htmlFor: element.id, textContent: title(field.key)}), element,
            ...(field.secret && field.is_set ? [removal(field, element)] : []),
            make("small", {id: `help-${field.key}`, textContent: field.kind === "flag" || field.kind === "choice"
                ? field.help : `${field.help} (${field.allowed ?? ""})`}), problem);
    });
    const more = Object.entries(section.more).map(([name, value]) => make("div", {className: "field"},
        make("span", {textContent: title(name)}), make("output", {textContent: Array.isArray(value) ? value.join(", ") : value})));
    const row = make("div", {className: "row"}, make("button", {type: "submit", textContent: "Save what has changed"}));
    if (section.section === "wifi") {
        for (const [name, words] of [["int", "internal"], ["ext", "external"]]) {
            const scan = make("button", {type: "button", textContent: `Scan with the ${words} Wi-Fi`});
            scan.onclick = () => tell($("outcome"), async () => {
                const {names} = await post("wifi-scan", {interface: name});
                return names.length ? `Networks: ${names.map((each) => each || "(hidden)").join(", ")}` : "No networks.";
            });
            row.append(scan);
        }
    }
    $("fields").replaceChildren(...rows, ...(shown.fields.length ? [row] : []), ...more,
        ...(section.section === "display" ? [displayModes(section.more)] : []));
}

async function load() {
    const name = $("section").value;
    $("fields").replaceChildren();
    await tell($("outcome"), async () => {
        const section = await get(`settings/${name}`);
        if ($("section").value === name) { // no other has been chosen meanwhile
            show(section);
        }
    });
}

async function save(event) {
    event.preventDefault();
    const changes = {};
    let risky = false;
    for (const field of shown.fields) {
        $(`problem-${field.key}`).textContent = "";
        const value = valueOf(field, $(`field-${field.key}`));
        if (value !== before(field) || $(`remove-${field.key}`)?.checked) {
            changes[field.key] = value;
            risky ||= field.risky;
        }
    }
    if (Object.keys(changes).length === 0) {
        $("outcome").textContent = "Nothing has changed.";
        return;
    }
    if (risky && !await ask("This may cut the connection to the board, or restart it. Save it?")) {
        return;
    }
    $("outcome").textContent = "Saving …";
    try {
        const answer = await put(`settings/${shown.section}`, changes);
        if (answer.restarts) {
            $("outcome").textContent = "Sent. The board stores it and restarts its daemon.";
            return;
        }
        show(answer);
        $("outcome").textContent = `Saved: ${Object.keys(changes).map(title).join(", ")}.`;
    } catch (error) {
        $("outcome").textContent = error.message;
        for (const [key, text] of Object.entries(error.fields ?? {})) {
            if ($(`problem-${key}`)) {
                $(`problem-${key}`).textContent = text;
            }
        }
    }
}

// What the board has by section, and sentences about what is left out.
async function allSettings() {
    const {sections} = await get("settings");
    const all = {};
    const unreadable = [];
    for (const name of sections) {
        const section = await get(`settings/${name}`).catch((error) => {
            if (error.status === 502) {
                unreadable.push(title(name));
            } else if (error.status !== 404) { // the board has no such section
                throw new Error(`${title(name)}: ${error.message}`);
            }
            return null;
        });
        for (const field of section?.fields ?? []) {
            if (!field.secret) {
                (all[name] ??= {})[field.key] = before(field);
            }
        }
    }
    const options = "internal_camera_params";
    const isHidden = all.camera && all.camera[options] === undefined;
    return [all, (unreadable.length ? ` Left out, as the board's answer cannot be read: ${unreadable.join(", ")}.` : "")
        + (isHidden ? ` Left out, as the console runs without --allow-camera-options: ${options}.` : "")];
}

const saveAll = () => tell($("system-said"), async () => {
    const [all, remark] = await allSettings();
    const text = JSON.stringify(all, null, 1);
    const link = make("a", {href: URL.createObjectURL(new Blob([text], {type: "application/json"})),
        download: "board-settings.json"});
    link.click();
    URL.revokeObjectURL(link.href);
    return `Saved. Pass phrases and stream keys are not in the file.${remark}`;
});

// Changes one section after the other. What may end the daemon or the connection comes last.
async function putAll(different) {
    const order = (name) => ["ethernet", "wifi", "info"].indexOf(name);
    const done = [];
    for (const section of Object.keys(different).sort((one, other) => order(one) - order(other))) {
        try {
            await put(`settings/${section}`, different[section]);
        } catch (error) {
            const fields = Object.entries(error.fields ?? {}).map(([key, text]) => `; ${title(key)}: ${text}`);
            throw new Error(`${title(section)}: ${error.message.replace(/\.$/, "")}${fields.join("")}. `
                + `Changed before that: ${done.join(", ") || "nothing"}.`);
        }
        done.push(title(section));
    }
}

const loadAll = (event) => tell($("system-said"), async () => {
    const wanted = JSON.parse(await event.target.files[0].text());
    event.target.value = "";
    const [now, remark] = await allSettings();
    const different = {};
    const lines = [];
    for (const [section, values] of Object.entries(wanted)) {
        for (const [key, value] of Object.entries(values)) {
            if (now[section]?.[key] !== undefined && now[section][key] !== value) {
                (different[section] ??= {})[key] = value;
                lines.push(`${title(key)}: ${now[section][key] || "(empty)"} → ${value || "(empty)"}`);
            }
        }
    }
    if (lines.length === 0) {
        return `The board has all these settings already.${remark}`;
    }
    if (!await ask(`Change these ${lines.length} settings?\n${lines.join("\n")}`)) {
        return "Nothing was changed.";
    }
    await putAll(different);
    return `Changed ${lines.length} settings.${remark}`;
});

export async function startSettings() {
    const {sections} = await get("settings");
    $("section").replaceChildren(...sections.map((name) => make("option", {value: name, textContent: title(name)})));
    $("section").onchange = load;
    $("fields").onsubmit = save;
    $("export").onclick = saveAll;
    $("import").onchange = loadAll;
}

export const openSettings = load;
