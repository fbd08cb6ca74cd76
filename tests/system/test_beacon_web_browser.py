"""The console's page in a real browser, with the real daemon and the simulated camera."""

import base64
import os
import signal
import subprocess
from pathlib import Path

import pytest

from beacon_web import Web
from board import EMULATOR, Board
from browser import NAME, Browser
from conftest import BUILD, CONFIG, REPOSITORY, SANITIZERS, wait_until
from rc_reader import Reader
from test_beacon_web import Stage

pytestmark = [
    pytest.mark.skipif(bool(EMULATOR), reason="not built for another processor"),
    pytest.mark.skipif(not Path("/usr/bin/chromedriver").exists(),
                       reason="Debian's chromium-driver is not installed"),
]

# The middle of the picture, small, as text: it changes with every picture of the camera.
PICTURE = """
const video = document.querySelector("video");
const canvas = document.createElement("canvas");
canvas.width = 64;
canvas.height = 36;
const paper = canvas.getContext("2d");
paper.drawImage(video, 0, 0, 64, 36);
return {pixels: canvas.toDataURL(), width: video.videoWidth, shown: video.currentTime,
        behind: video.buffered.length ? video.buffered.end(video.buffered.length - 1)
                                        - video.currentTime : null,
        pictures: video.getVideoPlaybackQuality().totalVideoFrames};
"""


@pytest.fixture(scope="module")
def stage(tmp_path_factory):
    with Board(BUILD) as board:
        yield Stage(board, tmp_path_factory.mktemp("browser"))


@pytest.fixture(scope="module")
def browser(stage):
    with Browser(stage.board) as made:
        made.open()
        made.wait("return document.querySelector('video').currentTime > 0", "the picture")
        yield made


def keep_screenshot(browser, name):
    """For people to look at."""
    folder = Path(os.environ.get("QUILLORBEACON_SCREENSHOTS", REPOSITORY / "build/screenshots"))
    folder.mkdir(parents=True, exist_ok=True)
    (folder / f"{name}.png").write_bytes(base64.b64decode(browser.screenshot()))


def test_screenshots_are_kept(browser, tmp_path, monkeypatch):
    monkeypatch.delenv("QUILLORBEACON_SCREENSHOTS", raising=False)
    kept = REPOSITORY / "build/screenshots/first.png"
    kept.unlink(missing_ok=True)
    keep_screenshot(browser, "first")
    assert kept.read_bytes().startswith(b"\x89PNG")
    monkeypatch.setenv("QUILLORBEACON_SCREENSHOTS", str(tmp_path / "elsewhere"))
    keep_screenshot(browser, "first")
    assert (tmp_path / "elsewhere/first.png").exists()


def test_the_picture_plays_by_itself(browser):
    first = browser.run(PICTURE)
    browser.wait("return document.querySelector('video').currentTime > arguments[0] + 1",
                 "a second of film", first["shown"])
    later = browser.run(PICTURE)
    assert later["width"] == 320 and later["pictures"] > first["pictures"] + 10
    assert later["pixels"] != first["pixels"]
    assert browser.run("return document.querySelector('#message').hidden")
    # It stays at the newest end; where the machine is busy, it needs a moment to get there.
    browser.wait("const video = document.querySelector('video');"
                 "return video.buffered.end(video.buffered.length - 1) - video.currentTime < 0.5",
                 "the newest end")


# What a hand, a key and a click do on the daemon.

VALUES = "/run/quillorbeacon/smooth_ptd_app_values"
AT_REST = [0, 0, 0]


def gimbal(stage):
    """Pan, tilt and roll as the daemon publishes them."""
    text = wait_until(stage.board.path(VALUES).read_text, "the gimbal's file")  # it is emptied first
    return [float(value) for value in text.split(",")]


def middle_of(browser, selector):
    box = browser.run("const box = document.querySelector(arguments[0]).getBoundingClientRect();"
                      "return [box.x, box.y, box.width, box.height]", selector)
    return round(box[0] + box[2] / 2), round(box[1] + box[3] / 2)


def show(browser, selector):
    browser.run("document.querySelector(arguments[0]).scrollIntoView({block: 'center'})", selector)


def pointer(*actions):
    return {"type": "pointer", "id": "hand", "parameters": {"pointerType": "mouse"},
            "actions": list(actions)}


def test_a_hand_on_the_pad_turns_the_gimbal(stage, browser):
    show(browser, "#pad")
    x, y = middle_of(browser, "#pad")
    browser.act(pointer({"type": "pointerMove", "x": x, "y": y, "duration": 0},
                        {"type": "pointerDown", "button": 0},
                        {"type": "pointerMove", "x": x + 40, "y": y, "duration": 50}))
    wait_until(lambda: 0.4 < gimbal(stage)[0] < 0.6, "the gimbal's values")
    browser.act(pointer({"type": "pointerUp", "button": 0}))
    wait_until(lambda: gimbal(stage) == AT_REST, "zeros")


def test_arrow_keys_turn_the_gimbal_until_the_focus_leaves(stage, browser):
    browser.run("document.querySelector('#pad').focus()")
    browser.act({"type": "key", "id": "keys",
                 "actions": [{"type": "keyDown", "value": "\ue013"}]})  # up
    wait_until(lambda: gimbal(stage)[0] == 0 and 0.5 < gimbal(stage)[1] < 0.7, "the gimbal's values")
    browser.run("document.querySelector('#photo').focus()")
    wait_until(lambda: gimbal(stage) == AT_REST, "zeros")
    browser.act({"type": "key", "id": "keys", "actions": [{"type": "keyUp", "value": "\ue013"}]})


PADS = """
const pad = (mapping, axes) => ({id: mapping, index: 0, connected: true, mapping, axes, buttons: []});
navigator.getGamepads = () => [null, pad("", [-1, -1, -1]), pad("standard", [...arguments[0]])];
document.hasFocus = () => true;
"""
NO_PADS = "delete navigator.getGamepads; delete document.hasFocus;"


def test_a_stick_that_never_rests_turns_nothing(stage, browser):
    """A throttle, or a controller whose axes nobody knows."""
    browser.run(PADS, [0, 0, -1])
    wait_until(lambda: gimbal(stage) == AT_REST, "zeros")
    # The page looks at its controllers every 80 ms.
    browser.run("return new Promise((done) => setTimeout(done, 500))")
    assert gimbal(stage) == AT_REST
    browser.run(PADS, [0.5, 0, -1])
    wait_until(lambda: 0.4 < gimbal(stage)[0] < 0.6, "the gimbal's values")
    assert gimbal(stage)[1:] == [0, 0]
    browser.run(NO_PADS)
    wait_until(lambda: gimbal(stage) == AT_REST, "zeros")


def test_one_question_at_a_time(browser):
    browser.run("document.querySelector('#restart').click();"
                "document.querySelector('#reboot').click()")
    assert browser.run("return document.querySelector('#question-text').textContent"
                       ).startswith("Restart the daemon?")
    browser.run("document.querySelector('#no').click()")


# A player on a page that was opened in the background: it opens no film until the page is shown.
HIDDEN = """
const source = window.ManagedMediaSource, address = URL.createObjectURL;
window.ManagedMediaSource = class extends EventTarget {
    static isTypeSupported() {
        return true;
    }
};
URL.createObjectURL = () => "";
return import("/live.js?hidden").then(({Player}) => {
    const player = new Player(document.createElement("video"));
    player.begin("avc1.4D401F");
    let most = 0;
    for (let i = 0; i < 2000; ++i) {
        player.append(new ArrayBuffer(10));
        most = Math.max(most, player.queue.length);
    }
    const failed = Boolean(player.failed);
    player.source.dispatchEvent(new Event("sourceopen"));
    return [most, failed, player.failed];
}).finally(() => {
    window.ManagedMediaSource = source;
    URL.createObjectURL = address;
});
"""


def test_a_page_in_the_background_gathers_no_film(browser):
    most, failed, failed_when_shown = browser.run(HIDDEN)
    assert most <= 300 and not failed and failed_when_shown


def test_recording_shows_its_true_state(browser):
    browser.wait("return document.querySelector('#record').textContent === 'Record'", "the state")
    browser.run("document.querySelector('#record').click()")
    browser.wait("return document.querySelector('#record').getAttribute('aria-pressed') === 'true'",
                 "the recording")
    browser.run("document.querySelector('#record').click()")
    browser.wait("return document.querySelector('#record').textContent === 'Record'", "its end")


def open_section(browser, name):
    browser.run("document.querySelector('[aria-controls=settings]').click()")
    browser.run("const list = document.querySelector('#section'); list.value = arguments[0];"
                "list.dispatchEvent(new Event('change'))", name)


def test_a_late_answer_for_another_section_is_not_shown(browser):
    browser.run("window.uncut = window.fetch; window.fetch = (path, ...more) => {"
                " const answer = window.uncut(path, ...more);"
                " if (!path.endsWith('settings/info')) return answer;"
                " return new Promise((done) => { window.late = () => done(answer); }); }")
    open_section(browser, "info")
    open_section(browser, "gimbal")
    browser.wait("return document.getElementById('field-app_pan_smooth')", "the form")
    # What the page does with the answer is done before a later timer runs.
    browser.run("window.fetch = window.uncut; window.late();"
                " return new Promise((done) => setTimeout(done, 100))")
    assert browser.run("return document.getElementById('field-app_pan_smooth') !== null")


def save_field(browser, name, value):
    browser.run("const field = document.getElementById(`field-${arguments[0]}`);"
                "if (field.type === 'checkbox') field.checked = arguments[1];"
                "else field.value = arguments[1];"
                "document.querySelector('#fields').requestSubmit()", name, value)


def wait_saved(browser, title):
    browser.wait("return document.querySelector('#outcome').textContent === arguments[0]",
                 f"{title} is saved", f"Saved: {title}.")


def test_a_setting_is_changed_in_its_form(stage, browser):
    open_section(browser, "gimbal")
    browser.wait("return document.getElementById('field-app_pan_smooth')", "the form")
    save_field(browser, "app_pan_smooth", "lots")
    browser.wait("return document.getElementById('problem-app_pan_smooth').textContent"
                 ".includes('a number from 0')", "the problem at the field")
    save_field(browser, "app_pan_smooth", "7")
    wait_saved(browser, "App pan smooth")
    assert "app_pan_smooth=7\n" in stage.board.path(CONFIG).read_text()


def test_a_key_is_removed(stage, browser):
    open_section(browser, "streaming")
    browser.wait("return document.getElementById('field-stream_rtmp_key')", "the form")
    assert not browser.run("return document.getElementById('remove-stream_rtmp_key')")
    save_field(browser, "stream_rtmp_key", "abc")
    browser.wait("return document.getElementById('remove-stream_rtmp_key')", "the box to remove it")
    name = "return document.getElementById('remove-stream_rtmp_key').labels[0].textContent"
    assert browser.run(name).strip() == "Remove: Stream rtmp key"
    assert 'stream_rtmp_key="abc"\n' in stage.board.path(CONFIG).read_text()
    browser.run("document.getElementById('remove-stream_rtmp_key').click();"
                "document.querySelector('#fields').requestSubmit()")
    browser.wait("const field = document.getElementById('field-stream_rtmp_key');"
                 "return field?.placeholder === 'not set'", "the form without it")
    assert browser.run("return document.querySelector('#outcome').textContent"
                       ) == "Saved: Stream rtmp key."
    assert 'stream_rtmp_key=""\n' in stage.board.path(CONFIG).read_text()


def test_every_setting_has_a_control(stage, browser):
    open_tab(browser, "settings")
    offered = browser.run("return [...document.querySelectorAll('#section option')]"
                          ".map((each) => each.value)")
    for name in stage.web.get("/api/v1/settings").json()["sections"]:
        reply = stage.web.get(f"/api/v1/settings/{name}")
        if reply.status == 404:
            continue
        assert name in offered
        # The list has its own tab.
        keys = [field["key"] for field in reply.json()["fields"] if field["key"] != "automove_list"]
        open_section(browser, name)
        browser.wait("const found = [...document.querySelectorAll('#fields [id^=field-]')];"
                     "return found.map((each) => each.id.slice(6)).join() === arguments[0].join()",
                     f"the form of {name}", keys)


def test_how_movements_are_played_is_set(stage, browser):
    open_section(browser, "automovement")
    browser.wait("return document.getElementById('field-automove_smooth_speed')", "the form")
    save_field(browser, "automove_smooth_speed", "3")
    wait_saved(browser, "Automove smooth speed")
    assert "automove_smooth_speed=3\n" in stage.board.path(CONFIG).read_text()


def test_the_mode_of_the_display_is_tried(stage, browser):
    open_section(browser, "display")
    browser.wait("return document.getElementById('display-mode')", "the modes")
    browser.run("const modes = document.getElementById('display-mode');"
                "modes.selectedIndex = [...modes.options].findIndex((each) =>"
                "  each.textContent === 'TV-out, PAL 14:9');"
                "modes.nextElementSibling.querySelector('button').click()")
    wait_until(lambda: any("PAL 14:9" in line for line in stage.board.log()), "the command")


def test_what_can_cut_the_link_asks_first(stage, browser):
    open_section(browser, "wifi")
    browser.wait("return document.getElementById('field-wifi_ssid')", "the form")
    save_field(browser, "wifi_ssid", "<b>Office</b>")
    browser.wait("return document.querySelector('#question').open", "the question")
    browser.run("document.querySelector('#no').click()")
    assert "Office" not in stage.board.path(CONFIG).read_text()
    save_field(browser, "wifi_ssid", "<b>Office</b>")
    browser.run("document.querySelector('#yes').click()")
    browser.wait("return document.querySelector('#outcome').textContent.startsWith('Saved')",
                 "saved")
    open_section(browser, "wifi")
    browser.wait("return document.getElementById('field-wifi_ssid')?.value === '<b>Office</b>'",
                 "the value as text")
    assert browser.run("return document.querySelectorAll('b').length") == 0


# The console's answers while the link to it is cut.
CUT = """
window.uncut = window.fetch;
window.fetch = (path, ...more) => path.includes(arguments[0])
    ? Promise.resolve(new Response('{"error":"the board does not answer"}', {status: arguments[1]}))
    : window.uncut(path, ...more);
"""
HEAL = "window.fetch = window.uncut;"


def open_tab(browser, name):
    browser.run("document.querySelector(`[aria-controls=${arguments[0]}]`).click()", name)


@pytest.fixture
def cut(browser):
    """cut(path, status): requests for that path fail with that status."""
    yield lambda path, status=504: browser.run(CUT, path, status)
    browser.run(HEAL)


def system_says(browser, text):
    browser.wait("return document.querySelector('#system-said').textContent.includes(arguments[0])",
                 text, text)


def test_settings_that_did_not_come_are_no_file(browser, cut):
    browser.run("window.files = 0; window.click = HTMLAnchorElement.prototype.click;"
                "HTMLAnchorElement.prototype.click = () => { window.files += 1; }")
    cut("settings/video")
    open_tab(browser, "system")
    browser.run("document.querySelector('#export').click()")
    system_says(browser, "Video: the board does not answer")
    assert browser.run("return window.files") == 0
    browser.run(HEAL)
    secrets = "Saved. Pass phrases and stream keys are not in the file."
    options = (" Left out, as the console runs without --allow-camera-options:"
               " internal_camera_params.")
    for section, status, said in (
            ("video", 404, secrets + options), ("camera", 404, secrets),
            ("video", 502, f"{secrets} Left out, as the board's answer cannot be read: Video."
                           f"{options}")):
        cut(f"settings/{section}", status)
        browser.run("document.querySelector('#system-said').textContent = '';"
                    "document.querySelector('#export').click()")
        browser.wait("return document.querySelector('#system-said').textContent === arguments[0]",
                     said, said)
        browser.run(HEAL)
    assert browser.run("HTMLAnchorElement.prototype.click = window.click; return window.files") == 3


LOAD = """
const file = document.querySelector("#import");
const given = new DataTransfer();
given.items.add(new File([JSON.stringify(arguments[0])], "settings.json"));
file.files = given.files;
file.dispatchEvent(new Event("change"));
"""


def test_a_file_with_what_the_console_does_not_offer(browser):
    open_tab(browser, "system")
    browser.run(LOAD, {"camera": {"internal_camera_params": "-w 640"}})
    system_says(browser, "runs without --allow-camera-options: internal_camera_params.")


def test_a_file_of_settings_that_is_refused_in_part(stage, browser):
    open_tab(browser, "system")
    browser.run(LOAD, {"gimbal": {"app_pan_smooth": "9"}, "wifi": {"ap_channel": "lots"}})
    browser.wait("return document.querySelector('#question').open", "the question")
    browser.run("document.querySelector('#yes').click()")
    system_says(browser, "Ap channel: ")
    system_says(browser, "Changed before that: Gimbal.")
    assert "app_pan_smooth=9\n" in stage.board.path(CONFIG).read_text()


def test_a_list_that_has_not_come_cannot_be_saved(browser, cut):
    buttons = ("return ['add-step', 'save-steps'].map("
               "(id) => document.getElementById(id).disabled).join()")
    cut("settings/automovement")
    open_tab(browser, "movements")
    browser.wait("return document.querySelector('#steps-said').textContent"
                 " === 'the board does not answer'", "the words")
    assert browser.run(buttons) == "true,true"
    browser.run(HEAL)
    open_tab(browser, "movements")
    browser.wait("return document.querySelector('#steps-said').textContent === ''", "the list")
    assert browser.run(buttons) == "false,false"


def test_a_movement_is_added_to_the_list(stage, browser):
    browser.run("document.querySelector('[aria-controls=movements]').click()")
    browser.wait("return document.querySelector('#steps-said').textContent === ''", "the list")
    browser.run("document.querySelector('#add-step').click();"
                "const fields = document.querySelectorAll('#steps input');"
                "fields[0].value = '30'; fields[1].value = '-10'; fields[2].value = '0';"
                "document.querySelector('#save-steps').click()")
    browser.wait("return document.querySelector('#steps-said').textContent === 'Saved.'", "saved")
    assert 'automove_list="30,-10,0,,,,,,,,' in stage.board.path(CONFIG).read_text()


# How the rows look when the daemon plays its first movement: those marked, those whose "Go" works.
ROWS = """
return import("/movements.js").then(({showMovement}) => {
    showMovement({movement_running: true, movement_index: 0});
    const rows = [...document.querySelector("#steps").tBodies[0].rows];
    return [rows.filter((row) => row.hasAttribute("data-current")).length,
            rows.filter((row) => !row.querySelector("button").disabled).length];
});
"""


@pytest.mark.parametrize("change", [
    "document.querySelector('#add-step').click()",
    "document.querySelector('#steps [aria-label^=Delete]').click()",
    "const field = document.querySelector('#steps input'); field.value = '31';"
    "field.dispatchEvent(new Event('input', {bubbles: true}))",
], ids=["add", "delete", "edit"])
def test_movements_that_are_not_saved_cannot_be_played(stage, browser, cut, change):
    stage.web.change("PUT", "/api/v1/settings/automovement",
                     {"automove_list": "30,-10,0,,,,,,,,;20,5,0,,,,,,,,"})
    open_tab(browser, "movements")
    browser.wait("return document.querySelector('#steps').tBodies[0].rows.length === 2", "the list")
    assert browser.run(ROWS) == [1, 2]
    browser.run(change)
    assert browser.run("return document.querySelectorAll("
                       "'#steps [data-current], #steps [aria-current=step]').length") == 0
    assert browser.run(ROWS) == [0, 0]
    cut("settings/automovement")
    browser.run("document.querySelector('#save-steps').click()")
    browser.wait("return document.querySelector('#steps-said').textContent"
                 " === 'the board does not answer'", "the words")
    assert browser.run(ROWS) == [0, 0]
    browser.run(HEAL)
    browser.run("const fields = document.querySelectorAll('#steps tr:last-child input');"
                "fields[0].value = '40'; fields[1].value = '1'; fields[2].value = '0';"
                "document.querySelector('#save-steps').click()")
    browser.wait("return document.querySelector('#steps-said').textContent === 'Saved.'", "saved")
    rows = browser.run("return document.querySelector('#steps').tBodies[0].rows.length")
    assert browser.run(ROWS) == [1, rows]
    browser.run(change)
    open_tab(browser, "movements")
    browser.wait("return document.querySelector('#steps-said').textContent === ''", "the list")
    assert browser.run(ROWS) == [1, rows]


def test_the_status_has_charts(browser):
    open_tab(browser, "status")
    browser.wait("const line = document.querySelector('#chart-frames polyline');"
                 "return line?.getAttribute('points')?.split(' ').length > 4", "a chart")
    said = browser.wait("const text = document.querySelector('#chart-rate figcaption').textContent;"
                        "return / [1-9][\\d.]* Mbit|0\\.[1-9]/.test(text) && text", "the bit rate")
    assert said.startswith("Video: ") and said.endswith(" Mbit/s")


def test_what_is_not_known_has_no_point_in_its_chart(stage, browser):
    def wait_caption(text):
        browser.wait("return document.querySelector('#chart-temperature figcaption')?.textContent"
                     " === arguments[0]", text, text)

    open_tab(browser, "status")
    wait_caption("Temperature: unknown")
    points = "return document.querySelector('#chart-temperature polyline').getAttribute('points')"
    assert browser.run(points).strip() == ""
    sensor = stage.board.path("/sys/class/thermal/thermal_zone0/temp")
    sensor.write_text("48312\n")
    wait_caption("Temperature: 48 °C")
    sensor.unlink()
    wait_caption("Temperature: unknown")


def said_of_calibration(browser, beginning):
    browser.wait("const text = document.querySelector('#rc-said').textContent;"
                 "return text.startsWith(arguments[0])", beginning, beginning)


def press(browser, button):
    browser.run("document.querySelector(arguments[0]).click()", f"#{button}")


def test_a_radio_control_is_calibrated_step_by_step(stage, browser):
    open_tab(browser, "rc")
    browser.wait("return document.querySelectorAll('#channels tbody tr').length > 5", "the channels")
    press(browser, "calibrate")
    said_of_calibration(browser, "Step 1 of 3: ")
    press(browser, "calibrate")
    said_of_calibration(browser, "Step 1 of 3 was not taken: RC1 is absent: switch its transmitter")
    sticks = Reader(stage.board)
    for channel in range(1, 17):
        sticks.set_raw(channel, 1500)
    sticks.connect(0)
    press(browser, "calibrate")
    said_of_calibration(browser, "Step 2 of 3: ")
    press(browser, "calibrate-anew")
    said_of_calibration(browser, "Step 1 of 3: ")
    press(browser, "calibrate")
    said_of_calibration(browser, "Step 2 of 3: ")
    assert sticks.state(0) == 2
    press(browser, "calibrate")
    said_of_calibration(browser, "Step 3 of 3: ")
    press(browser, "calibrate")
    said_of_calibration(browser, "Calibrated")
    sticks.disconnect(0)
    sticks.close()


def test_the_channels_of_a_radio_control_move(stage, browser):
    open_tab(browser, "rc")
    stage.board.write("/tmp/sticks", "0 ch1=1100\n120 ch1=1900\n")
    sticks = stage.board.popen(BUILD / "beacon-sim", "--no-video", "--no-telemetry", "--no-audio",
                               "--sticks", "/tmp/sticks", env=SANITIZERS, stdin=subprocess.DEVNULL,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    for _ in range(2):
        browser.wait("const raw = document.querySelector('#channels tbody tr')?.cells[4].textContent;"
                     "const before = window.raw; window.raw = raw;"
                     "return Number(raw) > 0 && before && before !== raw", "the stick moves")
    children = Path(f"/proc/{sticks.pid}/task/{sticks.pid}/children").read_text()
    os.kill(int(children.split()[0]), signal.SIGTERM)
    sticks.wait(60)


def make_film(path):
    """A film as the recorder makes them, of two seconds."""
    path.parent.mkdir(parents=True)
    subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc=size=320x180:rate=30",
                    "-t", "2", "-c:v", "libx264", "-pix_fmt", "yuv420p", "-movflags",
                    "frag_keyframe+empty_moov+default_base_moof", path], check=True, timeout=60)


def test_a_recording_is_played_and_deleted(stage, browser):
    film = stage.board.path("/media/DCIM/20261122/081107.mp4")
    make_film(film)
    browser.run("document.querySelector('[aria-controls=recordings]').click()")
    browser.wait("return document.querySelectorAll('#files li').length === 1", "the list")
    # A click by a person: without one a browser plays no film with sound.
    show(browser, "#files button")
    x, y = middle_of(browser, "#files button")
    browser.act(pointer({"type": "pointerMove", "x": x, "y": y, "duration": 0},
                        {"type": "pointerDown", "button": 0}, {"type": "pointerUp", "button": 0}))
    browser.wait("return document.querySelector('#film').currentTime > 1", "the film")
    keep_screenshot(browser, "recordings")
    browser.run("[...document.querySelectorAll('#files button')].at(-1).click()")
    browser.wait("return document.querySelector('#question').open", "the question")
    assert film.exists()
    browser.run("document.querySelector('#yes').click()")
    browser.wait("return document.querySelectorAll('#files li').length === 0", "the shorter list")
    assert not film.exists()


# Phones and wide screens.

@pytest.mark.parametrize("width", [360, 1920])
def test_the_page_fits(browser, width):
    browser.resize(width, 900)
    for tab in ("status", "settings", "movements", "rc", "recordings", "system"):
        browser.run("document.querySelector(`[aria-controls=${arguments[0]}]`).click()", tab)
        # Chromium's windows are at least 500 pixels wide; a frame is not.
        fits = browser.run("document.body.style.setProperty('width', `${arguments[0]}px`);"
                           "const main = document.querySelector('main');"
                           "const wide = [...main.querySelectorAll('*')].filter((each) =>"
                           "  !each.closest('.wide') && each.getClientRects().length"
                           "  && each.getBoundingClientRect().right > arguments[0] + 1);"
                           "const found = wide.map((each) => each.id || each.className || each.tagName);"
                           "document.body.style.removeProperty('width'); return found;", width)
        assert fits == [], tab
    browser.run("document.querySelector('[aria-controls=status]').click()")
    keep_screenshot(browser, f"console-{width}")


# The controls without a name; the text of a list's options or of a table's cells is none.
NAMELESS = """
return [...document.querySelectorAll("button, input, select, meter, video, table, [tabindex]")]
    .filter((each) => ![each.getAttribute("aria-label"), each.caption?.textContent,
                        each.matches("button") && each.textContent,
                        ...[...each.labels ?? []].map((label) => label.firstChild?.textContent)]
        .some((name) => name && name.trim()))
    .map((each) => each.outerHTML);
"""


def test_every_control_has_a_name(browser):
    ready = {"settings": "return document.querySelectorAll('#fields input').length",
             "movements": "return document.querySelector('#steps-said').textContent === ''",
             "rc": "return document.querySelectorAll('#channels meter').length > 5"}
    for tab in ("status", "settings", "movements", "rc", "recordings", "system"):
        open_tab(browser, tab)
        if tab in ready:
            browser.wait(ready[tab], tab)
        assert browser.run(NAMELESS) == [], tab


def test_each_movement_has_names_of_its_own(browser):
    open_tab(browser, "movements")
    browser.wait("return document.querySelector('#steps-said').textContent === ''", "the list")
    browser.run("const add = document.querySelector('#add-step');"
                "add.click(); add.click(); add.click();"
                "document.querySelector('#steps [aria-label^=Delete]').click()")
    names = browser.run("return [...document.querySelector('#steps').tBodies[0].rows].map((row) =>"
                        " [...row.querySelectorAll('input, button')].map((each) =>"
                        "  each.getAttribute('aria-label') ?? each.textContent))")
    for number, row in enumerate(names, 1):
        assert row[0] == f"Pan, movement {number}"
        assert row[-2:] == [f"Go to movement {number}", f"Delete movement {number}"]
    open_tab(browser, "status")


def test_the_page_breaks_none_of_its_own_rules(browser):
    # A refused value is one that a test sent, and so is the calibration of an absent receiver.
    said = [line["message"] for line in browser.log()
            if NAME in line["message"] and line["level"] in ("WARNING", "SEVERE")
            and "status of 422" not in line["message"]
            and "rc/calibration - Failed to load resource: the server responded with a status of 409"
            not in line["message"]]
    assert said == []


def test_the_picture_is_live_again_after_a_sleep(browser):
    """The machine with the browser sleeps for so long that the console takes it for gone."""
    browser.sleep(31)
    browser.wait("const video = document.querySelector('video');"
                 "if (!video.buffered.length || !document.querySelector('#message').hidden) return;"
                 "const behind = video.buffered.end(video.buffered.length - 1) - video.currentTime;"
                 # The film begins again at 0 when the page has noticed that it lost its connection.
                 "window.seen = Math.min(window.seen ?? Infinity, video.currentTime);"
                 "return behind < 0.5 && video.currentTime > window.seen + 1", "the live picture",
                 timeout=60.0)


# Last: it takes the console away.

def test_the_picture_comes_back_after_the_console_restarts(stage, browser, tmp_path):
    os.kill(stage.web.pid, signal.SIGTERM)
    stage.web.process.wait(10)
    browser.wait("return document.querySelector('#message').textContent"
                 " === 'The console does not answer.'", "the words")
    stage.web = Web(stage.board, tmp_path, "--allow-host", "board.test").wait_ready()
    browser.wait("return document.querySelector('#message').hidden"
                 " && document.querySelector('video').currentTime > 0.5", "the picture")
