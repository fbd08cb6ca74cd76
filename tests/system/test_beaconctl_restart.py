"""beaconctl restart: it ends the daemon once, also over links that lose or delay datagrams."""

import threading

import pytest

from beaconctl import Ctl, bad_link  # noqa: F401 - a fixture

QUIET = "recording_place=2\n"


@pytest.fixture
def ctl(board):
    return Ctl(board)


@pytest.fixture
def daemon(start):
    return start(QUIET)


def test_restart(ctl, daemon):
    done = ctl("restart")
    assert (done.returncode, done.stdout) == (
        0, "The daemon has ended; its supervisor starts it again.\n")
    assert daemon.wait_exit() == 2


def test_a_restart_of_which_datagrams_get_lost(
        ctl, daemon, bad_link, make_client, start):  # noqa: F811
    client = make_client()
    for _ in range(500):  # the old sequence number is far beyond that of a new daemon
        client.send(b"\0")
        client.receive_any()
    # After the first request: the command and the request after it are lost, and the command
    # again.
    link = bad_link(lambda to_client, number, _datagram: to_client or number not in (2, 3, 5))
    process = ctl.start(*link.options, "--timeout", "60", "restart", text=True)
    assert daemon.wait_exit(30.0) == 2
    start(QUIET)
    assert process.wait(60.0) == 0
    assert process.stdout.read() == "The daemon has ended; its supervisor starts it again.\n"
    assert link.lost == 3


def test_a_restart_over_a_slow_link(ctl, daemon, bad_link, make_client, start):  # noqa: F811
    client = make_client()
    for _ in range(500):
        client.send(b"\0")
        client.receive_any()
    restarts, askers, timers = [], [], []

    def passes(to_client, _number, datagram):
        if to_client:
            timers.append(threading.Timer(1.3, link.front.sendto, (datagram, askers.pop(0))))
            timers[-1].start()
            return False
        if b"restart" not in datagram:
            askers.append(link.client)
            return True
        restarts.append(datagram)
        return len(restarts) > 1

    link = bad_link(passes)
    process = ctl.start(*link.options, "--timeout", "60", "restart", text=True)
    assert daemon.wait_exit(30.0) == 2
    second = start(QUIET)
    assert process.wait(60.0) == 0
    assert process.stdout.read() == "The daemon has ended; its supervisor starts it again.\n"
    assert len(restarts) == 2 and second.alive()
    for timer in timers:
        timer.cancel()


def test_a_restart_after_which_nothing_is_heard(ctl, daemon, bad_link):  # noqa: F811
    link = bad_link(lambda to_client, number, _datagram: number == 1)
    done = ctl(*link.options, "--timeout", "1", "restart")
    assert (done.returncode, done.stdout, done.stderr) == (
        3, "", "beaconctl: sent, but the daemon no longer answers\n")
    assert daemon.alive()
    link = bad_link(lambda to_client, _number, datagram: b"restart" not in datagram)
    done = ctl(*link.options, "restart")
    assert (done.returncode, done.stderr) == (
        1, "beaconctl: the daemon keeps running without a restart\n")
