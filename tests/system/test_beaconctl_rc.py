"""beaconctl and radio control: the channels, and calibrations that are ended or given up."""

import json

import pytest

from beaconctl import Ctl, bad_link  # noqa: F401 - a fixture
from commands import BOOT_FILE, parse_settings
from conftest import wait_until
from test_rc import make_reader  # noqa: F401 - a fixture

QUIET = "recording_place=2\n"
OLD = (900, 2100, 1400)
RESTORED = "beaconctl: calibration given up; the channels have their old values again"
NOT_RESTORED = ("beaconctl: calibration given up, but the old values could not be restored: RC1 may "
                "still be calibrating")


@pytest.fixture
def ctl(board):
    return Ctl(board)


@pytest.fixture
def daemon(start):
    return start(QUIET + 'rc1_channels=[{"ch":1,"min":900,"c":1400,"max":2100,"f":2}]\n')


@pytest.fixture
def sticks(daemon, make_reader):  # noqa: F811
    reader = make_reader()
    for channel in range(1, 17):
        reader.set_raw(channel, 1500)
    reader.connect(0)
    return reader


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
    assert len(seen) == 2
    assert sticks.channel(1)[1:4] == OLD and sticks.state(0) == 1


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
    assert len(seen) == 2 and sticks.channel(3)[3] == 1900


def test_calibration_of_a_receiver_that_is_not_there(ctl, sticks):
    done = ctl("rc", "calibrate", "2")
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr.startswith("beaconctl: RC2 is absent")
