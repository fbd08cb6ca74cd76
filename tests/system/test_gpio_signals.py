"""The GPIO library installs handlers for all signals; the daemon keeps only the one for SIGPIPE.

The tests' library behaves like the real one: its handlers of SIGPIPE and SIGCHLD do nothing but
interrupt blocked system calls; most others end the process with the library's own exit.
"""

import os
import signal
import socket
from pathlib import Path

import pytest

from board import EMULATOR
from commands import log_lines, update_text
from conftest import wait_until
from test_inputs import BUTTON, BUTTON_USED, HIGH, LOW, actions, set_level
from test_status import next_record

SLOW_BOARD = "Raspberry Pi Zero W"
# A sanitizer catches these itself; the C library uses two without names.
CAUGHT_ANYWAY = {signal.SIGSEGV, signal.SIGBUS, signal.SIGFPE, 32, 33}
NOT_EMULATED = pytest.mark.skipif(bool(EMULATOR), reason="the emulator catches signals itself")


@pytest.fixture
def daemon(start):
    return start("recording_place=0\n", gpio=True)


def caught_signals(daemon):
    status = Path(f"/proc/{daemon.pid}/status").read_text()
    mask = int(status.split("\nSigCgt:")[1].split()[0], 16)
    return {number for number in range(1, 65) if mask >> (number - 1) & 1} - CAUGHT_ANYWAY


@NOT_EMULATED
@pytest.mark.parametrize("model", [None, SLOW_BOARD])
def test_only_a_broken_pipe_stays_caught(start, model):
    assert caught_signals(start("", model=model, gpio=True)) == {signal.SIGPIPE}


@NOT_EMULATED
def test_of_a_library_that_fails_nothing_else_stays_either(board, start):
    board.write("/run/gpio/broken", "")
    assert caught_signals(start("", gpio=True)) == {signal.SIGPIPE}


def test_commands_that_end_do_not_disturb_the_other_threads(board, daemon, registered_client):
    """The status monitor's mount commands and the clients' commands end all the time."""
    client = registered_client(daemon)
    board.socket(socket.SOCK_STREAM).connect(("127.0.0.1", 5252))
    daemon.wait_error("TCP server: Client connected")
    for number in range(1, 11):
        client.send(update_text("make_preview", "0"))
        wait_until(lambda: not daemon.alive() or log_lines(board).count("sh -c mount /boot") >= number,
                   "the settings saved")
        next_record(client)
    assert daemon.alive()
    assert daemon.errors().count("TCP server: Waiting") == 1, "the TCP client was dropped"


def test_a_button_on_a_slow_board_does_not_disturb_the_other_threads(
        board, start, registered_client):
    """There the signal may go to a receive thread first."""
    set_level(board, BUTTON, HIGH)
    daemon = start(BUTTON_USED, model=SLOW_BOARD, gpio=True)
    client = registered_client(daemon)
    for number in range(1, 4):
        for _ in range(9):  # the button is examined twice and seen released
            next_record(client)
        set_level(board, BUTTON, LOW)
        wait_until(lambda: not daemon.alive() or len(actions(daemon)) == number, "a press seen")
        set_level(board, BUTTON, HIGH)
    assert daemon.alive()


@pytest.mark.parametrize("name", ["SIGTERM", "SIGUSR1"])
def test_a_signal_ends_the_daemon(daemon, name):
    os.kill(daemon.pid, signal.Signals[name])
    assert daemon.wait_exit() == -signal.Signals[name]


def test_the_abnormal_end_is_an_abort(daemon, make_client):
    make_client().send(b'{"cmd":')
    assert daemon.wait_exit(20.0) == -signal.SIGABRT


def test_a_broken_pipe_of_the_library_does_not_end_the_daemon(daemon, registered_client):
    os.kill(daemon.pid, signal.SIGPIPE)
    client = registered_client(daemon)
    for _ in range(3):
        next_record(client)
    assert daemon.alive()
