"""What beaconctl writes for scripts, and standard outputs that cannot be written."""

import json
import subprocess

import pytest

from beaconctl import PROGRAM, Ctl
from conftest import SANITIZERS

QUIET = "recording_place=2\n"
FULL = "beaconctl: cannot write to standard output: No space left on device\n"
CLOSED = "beaconctl: cannot write to standard output: Bad file descriptor\n"
PRINTING = [
    ["get"], ["get", "info"], ["get", "info", "--json"], ["set"], ["set", "display", "hflip", "1"],
    ["set", "automovement", "setstate", "0"], ["watch"], ["watch", "--once"], ["scan"], ["rc"],
    ["rc", "--json"], ["gimbal", "0", "0", "0"], ["--help"], ["set", "--help"], ["--version"],
    ["raw", '{"cmd":"config_request","param":"system"}', "--seconds", "2"],
]


@pytest.fixture
def ctl(board):
    return Ctl(board)


@pytest.fixture
def daemon(start):
    return start(QUIET)


def run_with_output(board, output, words):
    return subprocess.run(board.command(PROGRAM, *words, env=SANITIZERS, cwd="/tmp"), stdout=output,
                          stderr=subprocess.PIPE, stdin=subprocess.DEVNULL, text=True, timeout=60,
                          check=False)


def test_a_standard_output_that_is_full(board, daemon):
    with open("/dev/full", "w") as full:
        for words in PRINTING:
            done = run_with_output(board, full, words)
            assert (done.returncode, done.stderr) == (1, FULL), words
        # An earlier failure has its own exit status.
        done = run_with_output(board, full, ["get", "nope"])
        assert done.returncode == 1 and "standard output" not in done.stderr


def test_a_standard_output_that_is_closed(board, daemon):
    for words in PRINTING:
        done = subprocess.run(
            board.command("/bin/sh", "-c", 'exec "$@" >&-', "sh", str(PROGRAM), *words,
                          env=SANITIZERS, cwd="/tmp"),
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL, text=True,
            timeout=60, check=False)
        assert (done.returncode, done.stdout, done.stderr) == (1, "", CLOSED), words
    assert "Unknown" not in daemon.errors() and daemon.alive()


def test_a_reader_that_has_left_is_no_error(ctl, daemon):
    process = ctl.start("set", "--help")
    process.stdout.close()
    assert process.wait(60.0) == 0 and process.stderr.read() == b""


def test_set_tells_scripts_what_has_become_of_the_values(ctl, daemon):
    done = ctl("set", "wlan", "ap_channel=11", "ap_ssid=a b", "--json", "--yes")
    assert (done.returncode, done.stderr) == (0, "")
    assert json.loads(done.stdout) == {"ap_ssid": "a b", "ap_channel": 11}
    done = ctl("set", "--json", "internal_camera", "enabled=0", "camera_params=" + "x" * 120,
               "--force")
    assert done.returncode == 1 and done.stderr.startswith("beaconctl: not taken as given: ")
    assert json.loads(done.stdout) == {"internal_camera_enabled": 0,
                                       "internal_camera_params": "x" * 99}
    done = ctl("set", "automovement", "setstate", "on", "--json")
    assert (done.returncode, done.stdout) == (0, "{}\n")


def test_lists_for_scripts(ctl):
    assert json.loads(ctl("get", "--json").stdout) == ctl("get").stdout.split()
    rows = json.loads(ctl("set", "--json").stdout)
    lines = [line.split() for line in ctl("set").stdout.splitlines()]
    assert [[row["param"]] + [row["sub"]] * bool(row["sub"]) for row in rows] == [
        [word for word in line if word[0] not in "<["] for line in lines]
    assert [[value["name"] for value in row["values"]] for row in rows] == [
        [word.strip("<>[]").removesuffix(":0|1") for word in line if word[0] in "<["]
        for line in lines]
    by_name = {(row["param"], row["sub"]): row for row in rows}
    assert by_name["display", "hflip"] == {
        "param": "display", "sub": "hflip", "section": "display", "values": [
            {"name": "display_hflip", "member": "hflip", "type": "flag", "optional": False}]}
    assert [value["optional"] for value in by_name["cvbs", "test"]["values"]] == [
        False, False, True]


def test_status_for_scripts(ctl, daemon):
    for words in (["--once", "--json"], ["--json", "--once"]):
        done = ctl("watch", *words)
        assert (done.returncode, done.stderr, done.stdout.count("\n")) == (0, "", 1)
        status = json.loads(done.stdout)
        assert status["storage_place"] == 2 and status["version"] == "0.8.19"
        assert status["recording"] is False and status["rc1_state"] == 0
        assert len(status) == 28
