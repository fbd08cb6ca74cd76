// Films and pictures that are stored on the board.

import {$, ask, get, make, post, tell} from "./api.js";

const shownAtOnce = 50;

const addressOf = (file, path) => `/files/${[file.place, ...path.split("/")].map(encodeURIComponent).join("/")}`;

function sizeOf(bytes) {
    const units = ["bytes", "kB", "MB", "GB"];
    let unit = 0;
    while (bytes >= 1000 && unit < units.length - 1) {
        bytes /= 1000;
        unit += 1;
    }
    return `${bytes.toFixed(unit && bytes < 100 ? 1 : 0)} ${units[unit]}`;
}

function closeFilm() {
    $("film").pause();
    $("film").removeAttribute("src");
    $("film").load();
    $("player").hidden = true;
}

function play(file) {
    $("player").hidden = false;
    $("film").src = addressOf(file, file.path);
    $("film").play().catch(() => {});
    $("player").scrollIntoView({block: "nearest"});
}

function previewOf(file) {
    const path = file.film ? file.preview : file.path;
    return path ? make("img", {src: addressOf(file, path), alt: "", loading: "lazy"})
        : make("span", {className: "no-preview", textContent: "no preview"});
}

async function remove(file, row) {
    if (await ask(`Delete ${file.path}? It cannot be brought back.`)) {
        await tell($("recordings-said"), async () => {
            await post("recordings/delete", {place: file.place, path: file.path});
            row.remove();
        }, `${file.path} is deleted.`);
    }
}

function rowOf(file) {
    const name = file.path.split("/").pop();
    const open = make("button", {type: "button", textContent: file.film ? "Play" : "Show"});
    open.setAttribute("aria-label", `${open.textContent} ${name}`);
    open.onclick = () => (file.film ? play(file) : window.open(addressOf(file, file.path), "_blank", "noopener"));
    const load = make("a", {href: addressOf(file, file.path), download: name, textContent: "Download"});
    load.setAttribute("aria-label", `Download ${name}`);
    const row = make("li", {}, previewOf(file),
        make("div", {}, make("strong", {textContent: file.path}), make("br"),
            make("small", {textContent: `${new Date(file.modified * 1000).toLocaleString()}, ${sizeOf(file.size)}, ${file.place} storage`})),
        make("div", {className: "row"}, open, load));
    const drop = make("button", {type: "button", textContent: "Delete"});
    drop.setAttribute("aria-label", `Delete ${name}`);
    drop.onclick = () => remove(file, row);
    row.lastChild.append(drop);
    return row;
}

function show(files) {
    const more = make("button", {type: "button", textContent: "Show more"});
    let next = 0;
    const showMore = () => {
        more.remove();
        $("files").append(...files.slice(next, next + shownAtOnce).map(rowOf));
        next += shownAtOnce;
        if (next < files.length) {
            $("files").append(more);
        }
    };
    more.onclick = showMore;
    $("files").replaceChildren();
    showMore();
}

export async function openRecordings() {
    $("close-film").onclick = closeFilm;
    await tell($("recordings-said"), async () => {
        const list = await get("recordings");
        show(list.files);
        if (!list.here) {
            return list.why;
        }
        return list.files.length === 0 ? "There are no recordings."
            : list.complete ? "" : "There are more recordings than are shown.";
    });
}
