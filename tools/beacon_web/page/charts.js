// Small line charts of what the console says twice a second.

import {$, make} from "./api.js";

const kept = 240; // samples: two minutes
const width = 240;
const height = 48;
const space = "http://www.w3.org/2000/svg";

// Name, unit, digits.
const kinds = {
    rate: ["Video", "Mbit/s", 1],
    frames: ["Pictures", "per second", 0],
    lost: ["Lost packets", "per second", 0],
    delay: ["Behind the newest picture", "ms", 0],
    temperature: ["Temperature", "°C", 0],
    free: ["Free space", "GB", 2],
};
const charts = {};
let last = null;
let lastAt = 0;

function chartOf(name) {
    if (!charts[name]) {
        const drawing = document.createElementNS(space, "svg");
        const line = document.createElementNS(space, "polyline");
        drawing.setAttribute("viewBox", `0 0 ${width} ${height}`);
        drawing.setAttribute("role", "img");
        drawing.append(line);
        const caption = make("figcaption");
        const figure = make("figure", {id: `chart-${name}`});
        figure.append(caption, drawing);
        $("charts").append(figure);
        charts[name] = {drawing, line, caption, values: []};
    }
    return charts[name];
}

function draw(name, chart) {
    const [title, unit, digits] = kinds[name];
    const known = chart.values.filter((value) => value !== null);
    const most = Math.max(...known, 0);
    const least = Math.min(...known, most);
    const low = least > most / 2 ? least - (most - least) / 4 : 0;
    const scale = (height - 4) / (most - low || 1);
    const first = kept - chart.values.length;
    chart.line.setAttribute("points", chart.values.map((value, i) => (value === null ? ""
        : `${((first + i) * width / (kept - 1)).toFixed(1)},${(height - 2 - (value - low) * scale).toFixed(1)}`)).join(" "));
    const now = chart.values.at(-1);
    chart.caption.textContent = `${title}: ${now === null ? "unknown" : `${now.toFixed(digits)} ${unit}`}`;
    const range = known.length === 0 ? "unknown" : `${least.toFixed(digits)} to ${most.toFixed(digits)} ${unit}`;
    chart.drawing.setAttribute("aria-label", `${title} in the last two minutes: ${range}`);
}

// What is known of the board now, and how far behind the newest picture the player is, in seconds.
export function addToCharts(board, behind, now) {
    const seconds = (now - lastAt) / 1000;
    const before = last;
    last = board;
    lastAt = now;
    if (!before || seconds <= 0) {
        return;
    }
    // The console may have begun anew.
    const perSecond = (after, earlier) => (after >= earlier ? (after - earlier) / seconds : null);
    const values = {
        rate: perSecond(board.streams.video.bytes * 8 / 1e6, before.streams.video.bytes * 8 / 1e6),
        frames: perSecond(board.pictures, before.pictures),
        lost: perSecond(board.lost, before.lost),
        delay: behind === null ? null : behind * 1000,
        temperature: board.present ? board.temperature ?? null : null,
        free: board.present && board.free_bytes !== undefined ? board.free_bytes / 1e9 : null,
    };
    for (const [name, value] of Object.entries(values)) {
        const chart = chartOf(name);
        chart.values.push(value);
        if (chart.values.length > kept) {
            chart.values.shift();
        }
        if (!$("status").hidden) {
            draw(name, chart);
        }
    }
}
