"""The board's sound in the console: in messages to who asked, and as it is heard in a browser."""

import json
import math
import socket
import struct
import subprocess
import time
from pathlib import Path

import pytest

from beacon_web import Web, next_text, ready_daemon, staged
from board import EMULATOR, Board
from browser import Browser
from conftest import BUILD, SANITIZERS, wait_until

pytestmark = pytest.mark.skipif(bool(EMULATOR), reason="not built for another processor")

SIMULATOR = BUILD / "beacon-sim"
RATE, SAMPLES, TONE = 16000, 320, 440
HEAD = struct.pack(">I4s", 8 + 2 * SAMPLES, b"sowt")
WITH_SOUND = "audio_enabled=1\n"
ON, OFF = '{"sound": true}', '{"sound": false}'
NO_SOUND = ("The board sends no sound: it is off in the settings (video), or no program has any.")
OTHER_SOUND = "The board's sound is of a kind that the console cannot play."


def is_sound(message):
    return isinstance(message, bytes) and message[4:8] == b"sowt"


def next_sound(live, timeout=60.0):
    """The samples of the next piece of sound, as bytes."""
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        message = live.recv()
        if is_sound(message):
            assert message[:8] == HEAD and len(message) == 8 + 2 * SAMPLES
            return message[8:]
    raise AssertionError("no sound")


def share_of_tone(samples):
    """How much of a piece's loudness is the simulator's tone, 0 to 1."""
    values = struct.unpack(f"<{SAMPLES}h", samples)
    turn = 2 * math.pi * TONE / RATE
    real = sum(value * math.cos(turn * i) for i, value in enumerate(values))
    imaginary = sum(value * math.sin(turn * i) for i, value in enumerate(values))
    return 2 * (real ** 2 + imaginary ** 2) / SAMPLES / sum(value ** 2 for value in values)


class Stage:
    """A board with the daemon, the console, and a simulated camera with a tone."""

    def __init__(self, board, folder):
        self.board = board
        self.daemon = ready_daemon(board, folder, WITH_SOUND)
        board.popen(SIMULATOR, "--size", "320x180", "--bitrate", "800", env=SANITIZERS,
                    stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.web = Web(board, folder, "--allow-host", "board.test").wait_ready()
        next_text(self.web.live(), "board", lambda text: text["picture_problem"] == ""
                  and text["sound_problem"] == "")


@pytest.fixture(scope="module")
def stage(tmp_path_factory):
    with Board(BUILD) as board:
        yield from staged(Stage(board, tmp_path_factory.mktemp("sound")))


@pytest.fixture
def web(stage):
    return stage.web


def packets_of(board):
    return board["streams"]["audio"]["packets"]


def sound_until(live, packets):
    """Bytes of sound, and pictures, until the console has had so many more packets of sound."""
    first, heard, pictures = None, 0, 0
    while True:
        message = live.recv()
        if is_sound(message):
            heard += len(message)
        elif isinstance(message, bytes):
            pictures += 1
        elif (text := json.loads(message))["type"] == "board":
            now = packets_of(text)
            first = now if first is None else first
            if now >= first + packets:
                return heard, pictures


def test_sound_goes_only_to_who_asked_and_until_it_asks_for_none(web):
    quiet, live = web.live(), web.live()
    live.send(ON)
    assert all(share_of_tone(next_sound(live)) > 0.95 for _ in range(50))
    heard, pictures = sound_until(quiet, 100)
    assert heard == 0 and pictures > 0
    live.send(OFF)
    now = packets_of(next_text(quiet, "board"))  # not one that was sent before
    next_text(live, "board", lambda board: packets_of(board) >= now + 100)
    heard, pictures = sound_until(live, 50)
    assert heard == 0 and pictures > 0


def test_other_wishes_are_none(web):
    live = web.live()
    for message in ('{"sound": 1}', '{"sound": "true"}', '{"sound": null}', '["sound"]', "{"):
        live.send(message)
    assert sound_until(live, 50)[0] == 0


# In a browser.

# Also hears what goes to the speaker.
LISTEN = """
const connect = AudioNode.prototype.connect;
AudioNode.prototype.connect = function (to, ...rest) {
    if (to === this.context.destination) {
        window.heard = new AnalyserNode(this.context, {fftSize: 4096, smoothingTimeConstant: 0});
        connect.call(this, window.heard);
    }
    return connect.call(this, to, ...rest);
};
"""
# The loudest frequency in hertz; the loudness of what is within 40 Hz of it; its share of all.
HEARD = """
const levels = new Float32Array(window.heard.frequencyBinCount);
window.heard.getFloatFrequencyData(levels);
const power = [...levels].map((level) => 10 ** (level / 10));
const step = window.heard.context.sampleRate / window.heard.fftSize;
const loudest = power.indexOf(Math.max(...power));
const sum = (list) => list.reduce((before, each) => before + each, 0);
const near = sum(power.filter((_, i) => Math.abs(i - loudest) * step < 40));
return {frequency: loudest * step, loudness: near, share: near / sum(power)};
"""


@pytest.fixture(scope="module")
def browser(stage):
    if not Path("/usr/bin/chromedriver").exists():
        pytest.skip("Debian's chromium-driver is not installed")
    with Browser(stage.board) as made:
        made.open()
        made.wait("return document.querySelector('video').currentTime > 0", "the picture")
        made.run(LISTEN)
        yield made


def press(browser, selector, key):
    browser.run("document.querySelector(arguments[0]).focus()", selector)
    browser.act({"type": "key", "id": "keys", "actions": [{"type": "keyDown", "value": key},
                                                          {"type": "keyUp", "value": key}]})


ENTER, HOME, END = "\ue007", "\ue011", "\ue010"


@pytest.fixture
def sounding(browser):
    """The browser, with the sound on."""
    press(browser, "#sound", ENTER)
    yield browser
    press(browser, "#sound", ENTER)


def hears_tone(browser, loudness=1e-3):
    """The tone, and nothing beside it: no piece is missing, none has a seam."""
    heard = browser.run(HEARD)
    return abs(heard["frequency"] - TONE) < 6 and heard["loudness"] > loudness and (
        heard["share"] > 0.999)


def test_the_page_is_silent_until_it_is_asked(browser):
    assert browser.run("return window.heard === undefined")
    assert browser.run("return document.querySelector('#sound').textContent") == "Sound"
    assert browser.run("return document.querySelector('#volume').hidden")


def test_the_tone_of_the_board_is_heard(sounding):
    wait_until(lambda: hears_tone(sounding), "the tone", 60.0)
    assert sounding.run("return document.querySelector('#sound').textContent") == "Mute"
    assert sounding.run("return document.querySelector('#sound-said').textContent") == ""


def test_keys_change_the_volume(sounding):
    wait_until(lambda: hears_tone(sounding), "the tone", 60.0)
    press(sounding, "#volume", HOME)
    wait_until(lambda: sounding.run(HEARD)["loudness"] < 1e-9, "silence")
    press(sounding, "#volume", END)
    wait_until(lambda: hears_tone(sounding), "the tone", 60.0)


def test_the_page_says_when_the_board_has_no_sound(web, sounding):
    def says(text):
        sounding.wait("return document.querySelector('#sound-said').textContent === arguments[0]",
                      text, text)

    assert web.change("PUT", "/api/v1/settings/video", {"audio_enabled": False}).status == 200
    says(NO_SOUND)
    assert web.change("PUT", "/api/v1/settings/video", {"audio_enabled": True}).status == 200
    says("")
    wait_until(lambda: hears_tone(sounding), "the tone", 60.0)


# Pieces that the test makes.

@pytest.fixture
def alone(board, tmp_path):
    """The console on a board without a camera, and a socket that is its source of sound."""
    daemon = ready_daemon(board, tmp_path, WITH_SOUND)
    web = Web(board, tmp_path).wait_ready()
    source = board.socket()
    source.connect(("127.0.0.1", 5003))
    next_text(web.live(), "board", lambda text: text["sound_problem"] == NO_SOUND)
    yield web, source
    assert web.process.poll() is None and web.err.read_text() == "" and daemon.alive()


def piece(number):
    return struct.pack("<I", number) + bytes(2 * SAMPLES - 4)


def number_of(samples):
    return struct.unpack_from("<I", samples)[0]


def test_sound_of_another_kind_is_not_sent(alone):
    web, source = alone
    live = web.live()
    live.send(ON)
    next_text(live, "board")

    def says(text, datagram):
        def is_said(board):
            source.send(datagram)
            return board["sound_problem"] == text
        next_text(live, "board", is_said)

    for datagram in (b"\xff\xf1\x50\x80\x01", bytes(2 * SAMPLES - 2), bytes(60000)):
        says(OTHER_SOUND, datagram)
    source.send(piece(7))
    assert number_of(next_sound(live)) == 7
    says("", piece(8))


def test_a_stuck_browser_misses_old_sound_and_holds_nobody_up(alone):
    web, source = alone
    connection = web.board.socket(socket.SOCK_STREAM, timeout=60.0)
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    connection.connect((web.host, web.port))
    stuck, live = web.live(connection=connection), web.live()
    for each in (stuck, live):
        each.send(ON)
    while not is_sound(live.recv()):
        source.send(piece(0))  # the console may not know the wish yet
    count, batch = 3000, 20  # few batches: the console takes who does not answer for 30 s as gone
    for number in range(1, count):
        source.send(piece(number))
        if number % batch == batch - 1:
            while number_of(next_sound(live)) != number:
                pass
    seen = []
    while not seen or seen[-1] < count - 1:
        seen.append(number_of(next_sound(stuck)))
    # What the system held for it, then the newest half second.
    assert seen[-25:] == list(range(count - 25, count))
    assert seen == sorted(seen) and len(seen) < count / 3
