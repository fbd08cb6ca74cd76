"""What beaconctl leaves behind when its terminal is closed, as by a broken SSH connection."""

import os
import signal
import subprocess

import pytest

from beaconctl import (AS_LOGIN, LIMIT, Ctl, StandInCtl, bad_link,  # noqa: F401 - a fixture
                       pieces_before, program_of)
from conftest import wait_until
from h264_streams import FAST, encode
from rc_reader import centred_sticks as sticks  # noqa: F401 - a fixture
from rc_reader import make_reader  # noqa: F401 - a fixture

QUIET = "recording_place=2\n"
OLD = (900, 2100, 1400)
PIECE = 59990


@pytest.fixture
def ctl(board):
    return Ctl(board)


@pytest.fixture
def daemon(start):
    return start(QUIET + 'rc1_channels=[{"ch":1,"min":900,"c":1400,"max":2100,"f":2}]\n')


@pytest.fixture(params=["a login", "no login"])
def at_terminal(ctl, request):
    """At the terminal of a login, which is told by SIGHUP, or at one that just goes away."""
    options = AS_LOGIN if request.param == "a login" else {}
    return lambda *words: ctl.at_terminal(*words, **options)


def test_a_calibration_is_given_up(at_terminal, sticks):
    terminal = at_terminal("rc", "calibrate")
    terminal.expect("channels moved so far: none")
    assert sticks.channel(1)[1:4] != OLD and sticks.state(0) == 2
    terminal.close()
    assert sticks.channel(1)[1:4] == OLD and sticks.state(0) == 1


def test_a_calibration_is_given_up_though_the_shell_says_it_again(ctl, sticks, bad_link):  # noqa: F811
    """A closing terminal sends SIGHUP, and so does the shell in it: here while old values go back."""
    told = []

    def passes(to_client, _number, datagram):
        if told and not to_client and b"finish-minmax" in datagram:
            os.kill(told[0], signal.SIGHUP)
            del told[:]
            return False
        return True

    terminal = ctl.at_terminal(*bad_link(passes).options, "rc", "calibrate", **AS_LOGIN)
    terminal.expect("channels moved so far: none")
    told.append(program_of(terminal.process))
    terminal.close()
    assert not told, "no second signal was sent"
    assert sticks.channel(1)[1:4] == OLD and sticks.state(0) == 1


@pytest.mark.parametrize("words", [["rc"], ["watch"], ["watch", "--no-streams"]])
def test_a_live_screen_ends(at_terminal, daemon, sticks, words):
    terminal = at_terminal(*words)
    terminal.expect("\x1b[J")
    terminal.close()


def test_new_values_are_taken_back(ctl, daemon):
    terminal = ctl.at_terminal("set", "wlan", "ap_ssid=New", "--yes", "--revert-after", "1000",
                               **AS_LOGIN)
    terminal.expect("or it is taken back: ")
    assert ctl("get", "ap_ssid").stdout == "New\n"
    terminal.close()
    assert ctl("get", "ap_ssid").stdout == "\n"


def test_a_question_is_not_answered_with_yes(at_terminal, daemon):
    terminal = at_terminal("set", "wlan", "ap_ssid=New")
    terminal.expect("[y/N] ")
    terminal.close()
    assert "config_update" not in daemon.errors()


@pytest.mark.parametrize("name", ["/tmp/x.h264", "/tmp/x.mkv"])
def test_a_recording_is_complete(board, ctl, daemon, make_producer, name):
    terminal = ctl.at_terminal("record", name, **AS_LOGIN)
    daemon.wait_error("New client connected")
    picture = encode([*FAST, "-frames:v", "1"])
    make_producer().publish(picture)
    terminal.expect(f"\r{len(picture)} bytes of video in ", LIMIT)
    terminal.close()
    daemon.wait_error(" removed\n")
    if name.endswith(".h264"):
        assert board.path(name).read_bytes() == picture
    probe = subprocess.run(["ffprobe", "-v", "error", "-count_frames", "-show_entries",
                            "stream=nb_read_frames", "-of", "csv=p=0", board.path(name)],
                           stdout=subprocess.PIPE, check=True)
    assert probe.stdout == b"1\n"
    assert not list(board.path("/tmp").glob("*.part"))


def test_a_download_can_go_on(board, ctl, daemon, bad_link):  # noqa: F811
    link = bad_link(pieces_before(5 * PIECE))
    data = os.urandom(10 * PIECE)
    board.write("/media/clip.mp4", data)
    terminal = ctl.at_terminal(*link.options, "download", "/media/clip.mp4", "/tmp/copy",
                               **AS_LOGIN)
    terminal.expect("  50 %  ")
    terminal.close()
    assert board.path("/tmp/copy.part").read_bytes() == data[:5 * PIECE]
    assert ctl("download", "/media/clip.mp4", "/tmp/copy", "--resume").returncode == 0
    assert board.path("/tmp/copy").read_bytes() == data


def test_a_player_ends(board, daemon):
    ctl = StandInCtl(board)
    ctl.add("ffplay", "echo $$ > /tmp/pid\nexec sleep 1000\n")
    terminal = ctl.at_terminal("view", **AS_LOGIN)
    daemon.wait_error("New client connected")
    number = wait_until(lambda: board.path("/tmp/pid").exists()
                        and board.path("/tmp/pid").read_text(), "the player").strip()
    terminal.close()
    assert not board.path(f"/proc/{number}").exists()
    daemon.wait_error(" removed\n")
