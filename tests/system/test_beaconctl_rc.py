"""beaconctl and radio control: the channels, and calibrations that are finished or cancelled."""

import json
import signal
import subprocess

import pytest

from beaconctl import LIMIT, Ctl, bad_link, send_signal  # noqa: F401 - a fixture
from commands import BOOT_FILE, parse_settings
from conftest import wait_until
from rc_reader import centred_sticks as sticks  # noqa: F401 - a fixture
from rc_reader import make_reader  # noqa: F401 - a fixture

QUIET = "recording_place=2\n"
OLD = (900, 2100, 1400)
RESTORED = "beaconctl: calibration given up; the channels have their old values again"
GONE = "beaconctl: RC1 does not respond: is it still switched on and in range?"
NOT_RESTORED = ("beaconctl: calibration given up, but the old values could not be restored: RC1 may "
                "still be calibrating")


@pytest.fixture
def ctl(board):
    return Ctl(board)


@pytest.fixture
def daemon(start):
    return start(QUIET + 'rc1_channels=[{"ch":1,"min":900,"c":1400,"max":2100,"f":2}]\n')


def test_channels(ctl, sticks):
    lines = ctl("rc").stdout.splitlines()
    assert lines[0] == "RC1 present" and lines[-1] == "RC2 absent" and len(lines) == 19
    assert lines[2].split() == ["1", "1500", "900", "1400", "2100", "0.143", "0", "100%", "no",
                                "pan"]
    answer = json.loads(ctl("rc", "--json").stdout)
    assert answer["rc1"]["state"] == 1 and answer["rc1"]["ch"][0]["c"] == 1400
    terminal = ctl.at_terminal("rc", rows=40)
    terminal.expect(" 1500  ")
    sticks.set_raw(7, 1777)
    terminal.expect("   7   1777  ")
    terminal.interrupt()
    assert terminal.end()[0] == 0


def test_calibration(board, ctl, sticks):
    terminal = ctl.at_terminal("rc", "calibrate")
    terminal.expect("Then press Enter.")
    terminal.expect("channels moved so far: none")
    for value in (1100, 1950):
        sticks.set_raw(3, value)
        wait_until(lambda: value in sticks.channel(3)[1:3], "the end noted")  # noqa: B023
    terminal.expect("channels moved so far: 3")
    terminal.type("\n")
    terminal.expect("Step 2 of 2, the centre.")
    assert sticks.state(0) == 1
    sticks.set_raw(3, 1490)
    terminal.type("\n")
    terminal.expect("Done and saved:")
    assert terminal.end()[0] == 0
    assert sticks.channel(3)[1:4] == (1100, 1950, 1490)
    saved = json.loads(parse_settings(board.path(BOOT_FILE).read_bytes())["rc1_channels"])
    assert saved[2]["min"] == 1100 and saved[2]["max"] == 1950 and saved[2]["c"] == 1490


def test_a_receiver_that_is_switched_off_before_its_centre_is_taken(board, ctl, sticks):
    terminal = ctl.at_terminal("rc", "calibrate")
    terminal.expect("channels moved so far: none")
    terminal.type("\n")
    terminal.expect("Step 2 of 2, the centre.")
    sticks.disconnect(0)
    terminal.type("\n")
    status, shown = terminal.end()
    assert status == 1 and f"{GONE}\r\n{RESTORED}\r\n" in shown
    saved = json.loads(parse_settings(board.path(BOOT_FILE).read_bytes())["rc1_channels"])
    assert (saved[0]["min"], saved[0]["max"], saved[0]["c"]) == OLD


def test_a_receiver_that_is_switched_off_during_the_first_step_is_told(ctl, sticks):
    terminal = ctl.at_terminal("rc", "calibrate")
    terminal.expect("channels moved so far: none")
    sticks.disconnect(0)
    status, shown = terminal.end()
    assert status == 1 and f"{GONE}\r\n{RESTORED}\r\n" in shown
    assert sticks.channel(1)[1:4] == OLD


def test_a_receiver_that_comes_back_has_learnt_nothing(ctl, sticks):
    process = ctl.start("rc", "calibrate", stdin=subprocess.PIPE, text=True)
    wait_until(lambda: sticks.state(0) == 2, "the calibration")
    sticks.disconnect(0)
    sticks.set_raw(1, 1500)
    sticks.connect(0)
    shown, told = process.communicate("\n\n", LIMIT)
    assert (process.returncode, told) == (1, f"{GONE}\n{RESTORED}\n"), shown
    assert sticks.channel(1)[1:4] == OLD


def test_a_calibration_that_does_not_begin(ctl, sticks, bad_link):  # noqa: F811
    link = bad_link(lambda to_client, _number, datagram: b"calibrate-minmax" not in datagram)
    done = ctl(*link.options, "rc", "calibrate", input="")
    assert (done.returncode, done.stderr) == (1, f"{GONE}\n{RESTORED}\n")
    assert link.lost == 3


@pytest.mark.parametrize("enters", ["", "\n"])
def test_calibration_that_is_given_up(ctl, sticks, enters):
    done = ctl("rc", "calibrate", "1", input=enters)
    assert done.returncode == 1
    assert done.stderr == RESTORED + "\n"
    assert sticks.channel(1)[1:4] == OLD and sticks.state(0) == 1


def test_calibration_that_is_given_up_at_a_terminal(ctl, sticks):
    terminal = ctl.at_terminal("rc", "calibrate")
    terminal.expect("channels moved so far: none")
    assert sticks.channel(1)[1:4] != OLD
    terminal.interrupt()
    status, shown = terminal.end()
    assert status == 1 and RESTORED in shown
    assert sticks.channel(1)[1:4] == OLD and sticks.state(0) == 1


def test_a_calibration_that_was_left_under_way_is_told(ctl, sticks):
    ctl("raw", '{"cmd":"rc","param":"calibrate-minmax","value":"0"}', "--seconds", "0.1")
    wait_until(lambda: sticks.state(0) == 2, "the calibration")
    done = ctl("rc", "calibrate", "1", input="")
    assert done.returncode == 1
    assert done.stdout.startswith("RC1 was left in the middle of a calibration, or someone else")
    assert done.stderr == ("beaconctl: calibration given up; the old values of RC1 were lost "
                           "before: calibrate it again\n")
    assert sticks.state(0) == 1


def test_a_closed_terminal_gives_a_calibration_up(ctl, sticks):
    terminal = ctl.at_terminal("rc", "calibrate")
    terminal.expect("channels moved so far: none")
    send_signal(terminal.process, signal.SIGHUP)
    assert terminal.end()[0] == 1
    assert sticks.channel(1)[1:4] == OLD and sticks.state(0) == 1


@pytest.mark.parametrize("lost", [b"finish-minmax", b"set-config"])
def test_calibration_that_is_given_up_over_a_bad_link(ctl, sticks, bad_link, lost):  # noqa: F811
    seen = []

    def passes(to_client, _number, datagram):
        if to_client or lost not in datagram:
            return True
        seen.append(datagram)
        return len(seen) > 1

    done = ctl(*bad_link(passes).options, "rc", "calibrate", input="")
    assert (done.returncode, done.stderr) == (1, RESTORED + "\n")
    assert len(seen) >= 2  # a slow answer is asked for again
    assert sticks.channel(1)[1:4] == OLD and sticks.state(0) == 1


def test_answers_that_come_late(ctl, sticks, bad_link):  # noqa: F811
    """A busy daemon is asked more than once, and answers all of that after the next command."""
    before = {}  # the two answers, while the receiver is being calibrated
    late = []

    def passes(to_client, _number, datagram):
        if not to_client:
            return True
        if b'"cmd":"rc1","state":2' in datagram:
            before[1] = datagram
        elif b'"cmd":"rc1"' in datagram and before and not late:
            late.extend([before[1], before[2]] * 6)
            for each in late:
                link.front.sendto(each, link.client)
        elif b'"cmd":"rc2"' in datagram:
            before[2] = datagram
        return True

    link = bad_link(passes)
    done = ctl(*link.options, "rc", "calibrate", input="")
    assert (done.returncode, done.stderr) == (1, RESTORED + "\n")
    assert late and sticks.channel(1)[1:4] == OLD


def test_old_values_that_cannot_be_restored(ctl, sticks, bad_link):  # noqa: F811
    link = bad_link(lambda to_client, _number, datagram: b"set-config" not in datagram)
    done = ctl(*link.options, "rc", "calibrate", input="")
    assert (done.returncode, done.stderr) == (3, NOT_RESTORED + "\n")
    assert link.lost == 3


def test_a_daemon_that_ends_during_a_calibration(ctl, daemon, sticks):
    terminal = ctl.at_terminal("--timeout", "0.5", "rc", "calibrate")
    terminal.expect("channels moved so far: none")
    daemon.kill()
    status, shown = terminal.end()
    assert status == 3 and NOT_RESTORED in shown


def test_a_centre_whose_command_gets_lost(ctl, sticks, bad_link):  # noqa: F811
    seen = []

    def passes(to_client, _number, datagram):
        if to_client or b"set-center" not in datagram:
            return True
        seen.append(datagram)
        return len(seen) > 1

    terminal = ctl.at_terminal(*bad_link(passes).options, "rc", "calibrate")
    terminal.expect("channels moved so far: none")
    sticks.set_raw(3, 1900)
    terminal.expect("channels moved so far: 3")
    terminal.type("\n")
    terminal.expect("Step 2 of 2, the centre.")
    terminal.type("\n")
    terminal.expect("Done and saved:")
    assert terminal.end()[0] == 0
    assert len(seen) >= 2 and sticks.channel(3)[3] == 1900


def test_calibration_of_a_receiver_that_is_not_there(ctl, sticks):
    done = ctl("rc", "calibrate", "2")
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr.startswith("beaconctl: RC2 is absent")
