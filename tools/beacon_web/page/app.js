// The page: connects to the console, shows the picture and what the board says.

import {$, ask, get, make, post, put, tell} from "./api.js";
import {addToCharts} from "./charts.js";
import {Player} from "./live.js";
import {openMovements, showMovement, startMovements} from "./movements.js";
import {startPad} from "./pad.js";
import {openRc} from "./rc.js";
import {openRecordings} from "./recordings.js";
import {openSettings, startSettings} from "./settings.js";
import {askForSound, isSound, showSound, startSound, takeSound} from "./sound.js";

const player = new Player($("picture"));
let socket = null;
let wait = 250; // ms until the next try to connect
let board = null; // what the console said last

function say(text) {
    $("message").textContent = text;
    $("message").hidden = text === "";
}

function showBoard(now) {
    const rate = board && now.streams.video.bytes >= board.streams.video.bytes
        ? (now.streams.video.bytes - board.streams.video.bytes) * 16 / 1e6 : 0;
    board = now;
    say(player.problem || board.picture_problem);
    const lines = [...(board.words ?? []), ["Video", `${rate.toFixed(1)} Mbit/s, ${board.pictures} pictures, ${board.lost} packets lost`],
        ["Board", board.address]];
    $("words").replaceChildren(...lines.flatMap(([name, text]) =>
        [make("dt", {textContent: name}), make("dd", {textContent: text})]));
    const isRecording = Boolean(board.status?.recording);
    $("record").setAttribute("aria-pressed", isRecording);
    $("record").textContent = isRecording ? "Stop recording" : "Record";
    for (const id of ["photo", "record"]) {
        $(id).disabled = !board.present;
    }
    showMovement(board.status);
    showSound(board.sound_problem);
    addToCharts(board, player.behind(), performance.now());
}

const events = {1: "Menu closed", 2: "Menu opened", 3: "Menu: left", 4: "Menu: right", 5: "Menu: up", 6: "Menu: down"};
function showNotice(event) {
    $("notice").textContent = events[event] ?? "";
    $("notice").hidden = !events[event];
    setTimeout(() => {
        $("notice").hidden = true;
    }, 3000);
}

function take(event) {
    if (event.data instanceof ArrayBuffer && isSound(event.data)) {
        takeSound(event.data);
        return;
    }
    if (event.data instanceof ArrayBuffer) {
        player.append(event.data);
        if (player.failed) {
            player.failed = false;
            socket.close();
        }
        return;
    }
    const message = JSON.parse(event.data);
    if (message.type === "video") {
        player.begin(message.codec);
    } else if (message.type === "board") {
        showBoard(message);
    } else if (message.type === "console") {
        $("logout").hidden = !message.login;
        $("plain").hidden = !message.login || location.protocol === "https:";
    } else if (message.type === "menu") {
        showNotice(message.event);
    }
}

function connect() {
    const scheme = location.protocol === "https:" ? "wss" : "ws";
    socket = new WebSocket(`${scheme}://${location.host}/live`);
    socket.binaryType = "arraybuffer";
    socket.onopen = () => {
        wait = 250;
        askForSound();
    };
    socket.onmessage = take;
    socket.onclose = () => {
        player.end();
        say("The console does not answer.");
        get("status").catch(() => {}); // leads to the login where that is the reason
        setTimeout(connect, wait);
        wait = Math.min(wait * 2, 3000);
    };
}

function send(message) {
    if (socket?.readyState === WebSocket.OPEN) {
        socket.send(JSON.stringify(message));
    }
}

function snapshot() {
    const video = $("picture");
    const paper = make("canvas", {width: video.videoWidth, height: video.videoHeight});
    if (paper.width === 0) {
        return;
    }
    paper.getContext("2d").drawImage(video, 0, 0);
    paper.toBlob((blob) => {
        const link = make("a", {href: URL.createObjectURL(blob), download: `picture-${new Date().toISOString().replace(/[:.]/g, "-")}.png`});
        link.click();
        URL.revokeObjectURL(link.href);
    });
}

function fullScreen() {
    if (document.fullscreenElement) {
        document.exitFullscreen();
    } else if (document.querySelector(".stage").requestFullscreen) {
        document.querySelector(".stage").requestFullscreen();
    } else {
        $("picture").webkitEnterFullscreen?.();
    }
}

async function command(path, question, done) {
    if (await ask(question)) {
        await tell($("system-said"), () => post(path), done);
    }
}

const opened = {settings: openSettings, movements: openMovements, rc: openRc, recordings: openRecordings};
function openTab(button) {
    for (const each of $("tabs").children) {
        const isOpen = each === button;
        each.setAttribute("aria-expanded", isOpen);
        $(each.getAttribute("aria-controls")).hidden = !isOpen;
    }
    opened[button.getAttribute("aria-controls")]?.();
}

for (const button of $("tabs").children) {
    button.onclick = () => openTab(button);
}
$("full").onclick = fullScreen;
$("keep").onclick = snapshot;
$("photo").onclick = () => tell($("said"), () => post("photo"), "Asked for a photo.");
$("record").onclick = () => tell($("said"), () => put("recording", {on: !board?.status?.recording}));
$("restart").onclick = () => command("restart", "Restart the daemon? The picture stops for some seconds.", "The daemon restarts.");
$("reboot").onclick = () => command("reboot", "Reboot the board? It is away for a minute or so.", "The board reboots.");
$("logout").onclick = async () => {
    await fetch("/logout", {method: "POST", body: "{}",
        headers: {"Content-Type": "application/json", "X-Beacon": "1"}});
    location.replace("/login");
};
setInterval(() => get("status").catch(() => {}), 86400000); // prolongs the login
startPad(send);
startSound(send);
startMovements();
connect();
startSettings().catch(() => {});
