"""Registration, removal and gimbal values do not wait while a command runs; all else keeps its
order, in a queue that has an end."""

import re
import struct
import time

import pytest

from commands import hold, release, update_text
from conftest import wait_until
from movement import APP_FILE, QUIET, make_source, wait_state_file  # noqa: F401 - a fixture

SCAN = b'{"cmd":"wlan","param":"scan","value":"int"}'
DROPPED = r"UDP server: Too many requests at once, (\d+) dropped\n"


@pytest.fixture
def daemon(start):
    return start(QUIET)


@pytest.fixture
def scanning(board, daemon, make_client):
    """A client whose Wi-Fi scan lasts until release(board, "iwlist")."""
    hold(board, "iwlist")
    client = make_client("127.0.0.9")
    client.send(SCAN)
    wait_until(lambda: "iwlist wifi0 scan" in board.log(), "the scan")
    return client


def first_byte_of_reply(client):
    return client.receive(20.0)[2][:1]


def wait_received(board, make_client):
    """Waits until the daemon has received what was sent before."""
    other = make_client("127.0.0.8")
    other.ask_info()
    assert first_byte_of_reply(other) == b"\1"


def marks(daemon):
    return re.findall(r'config_update: \{"cmd": "updateconfig", "param": "mark-(\d+)"',
                      daemon.errors())


def test_clients_come_and_go_during_a_scan(board, daemon, scanning, registered_client):
    client = registered_client(daemon)
    client.remove()
    daemon.wait_error(f"UDP server: Client {client.host}:{client.port} removed\n")
    client.ask_info()
    while client.receive()[2][:1] != b"\1":
        pass
    release(board, "iwlist")
    assert first_byte_of_reply(scanning) == b"{"


@pytest.mark.long
def test_a_client_that_registers_is_kept_during_a_long_scan(daemon, scanning, registered_client):
    client, silent = registered_client(daemon), registered_client(daemon, "127.0.0.3")
    lost = "UDP server: Client {0.host}:{0.port} lost\n"
    end = time.monotonic() + 13

    def is_over():
        client.register()
        assert lost.format(client) not in daemon.errors()
        return time.monotonic() > end

    wait_until(is_over, "the time after which a client is lost", timeout=30, interval=0.5)
    daemon.wait_error(lost.format(silent))
    scanning.register()
    daemon.wait_error(f"New client connected from {scanning.host}:{scanning.port} ")


def test_gimbal_values_arrive_during_a_scan(board, daemon, scanning, make_client, make_source):
    client, source = make_client(), make_source(daemon)
    client.send(b"\5\0" + struct.pack("<hhh", 32767, 0, 0))
    wait_state_file(board, APP_FILE, "1.000000,0.000000,0.000000")
    client.send(b"\5\1for the source")
    assert source.receive() == b"\5\1for the source"


def test_the_rest_keeps_its_order(board, daemon, scanning, make_client, make_source):
    source, other = make_source(daemon), make_client()
    other.send(b"!first")
    other.send(update_text("mark-1"))
    scanning.ask_info()
    other.ask_info()
    other.send(b"!second")
    wait_received(board, make_client)
    assert source.received() == [] and marks(daemon) == []
    release(board, "iwlist")
    assert first_byte_of_reply(scanning) == b"{"
    assert first_byte_of_reply(scanning) == b"\1"
    assert first_byte_of_reply(other) == b"\1"
    assert [source.receive(), source.receive()] == [b"!first", b"!second"]
    assert marks(daemon) == ["1"]


def test_a_burst_waits_and_what_finds_no_room_is_counted(board, daemon, scanning, make_client,
                                                         registered_client):
    client = make_client()
    for number in range(1500):
        client.send(update_text(f"mark-{number}"))
        if number % 50 == 49:
            wait_received(board, make_client)
    registered_client(daemon, "127.0.0.3")
    assert marks(daemon) == []
    for number in range(1500, 1600):
        client.send(update_text(f"mark-{number}", "x" * 25000))
        if number % 5 == 4:
            wait_received(board, make_client)
    client.register()
    daemon.wait_error(f"New client connected from {client.host}:{client.port} ")
    wait_until(lambda: re.search(DROPPED, daemon.errors()), "the count of what was dropped")
    release(board, "iwlist")
    client.send(update_text("mark-9999"))
    assert first_byte_of_reply(scanning) == b"{"

    def dropped():
        return sum(int(count) for count in re.findall(DROPPED, daemon.errors()))

    wait_until(lambda: len(marks(daemon)) + dropped() == 1601, "all carried out or dropped",
               timeout=60)
    done = [int(number) for number in marks(daemon)]
    assert done[:1500] == list(range(1500))
    assert done == sorted(done) and len(done) > 1510
    assert 50 < dropped() < 90


def test_a_command_that_ends_the_process_waits_for_its_turn(board, daemon, scanning, make_client):
    other = make_client()
    other.send(b'{"cmd":"restart"}')
    wait_received(board, make_client)
    assert daemon.alive()
    release(board, "iwlist")
    assert first_byte_of_reply(scanning) == b"{"
    assert daemon.wait_exit(20.0) == 2
