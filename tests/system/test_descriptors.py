"""Requests leak no descriptor, and the programs that the daemon runs inherit none."""

import os

import pytest

from commands import BOOT_FILE, install, update_text
from conftest import wait_until

PROGRAM = """#!/sys/board/sh
ls -l /proc/$$/fd > /sys/board/descriptors.new
mv /sys/board/descriptors.new /sys/board/descriptors
"""


def scan(interface):
    return b'{"cmd":"wlan","param":"scan","value":"' + interface + b'"}'


def request(section):
    return b'{"cmd":"config_request","param":"' + section + b'"}'


@pytest.fixture
def client(make_client):
    return make_client()


def open_descriptors(daemon):
    return len(os.listdir(f"/proc/{daemon.pid}/fd"))


def finish(client):
    """Waits until everything sent before has been handled."""
    client.ask_info()
    while client.receive(20.0)[2][0] != 1:
        pass


@pytest.mark.parametrize("payload", [
    b"\x09", scan(b"int"), request(b"info"), request(b"wifi"), update_text("make_preview", "1"),
    update_text("display", "hflip", "1")],
    ids="screenshot scan info wifi save notification".split())
def test_nothing_is_left_open(board, daemon, client, payload):
    for name in ("screenshot.png", "wlan0.ip", "wifi0.ip", ".ip"):
        board.write(f"/run/quillorbeacon/{name}", "content")
    board.write("/sys/firmware/devicetree/base/model", "Board")
    finish(client)
    before = open_descriptors(daemon)
    for _ in range(10):
        client.send(payload)
    finish(client)
    # A file that the daemon writes once a second may be open at the moment.
    wait_until(lambda: open_descriptors(daemon) <= before, f"{before} open descriptors again")


def test_a_picture_that_is_not_sent_and_a_save_that_fails(board, daemon, client):
    board.path(BOOT_FILE).mkdir()
    board.write("/run/quillorbeacon/screenshot.png", bytes(50000))
    before = open_descriptors(daemon)
    for _ in range(10):
        client.send(b"\x09")
        client.send(update_text("make_preview", "1"))
    finish(client)
    wait_until(lambda: open_descriptors(daemon) <= before, f"{before} open descriptors again")


@pytest.mark.parametrize("tool, payload", [
    ("ifconfig", scan(b"int")), ("iwlist", scan(b"int")), ("tvservice", request(b"display")),
    ("dhcpcd", update_text("ethernet", "0")), ("pidof", update_text("rc", "0"))],
    ids=lambda each: each if isinstance(each, str) else "")
def test_programs_get_no_socket_of_the_daemon(board, daemon, client, tool, payload):
    """A program that kept a socket and outlived the daemon would block the next daemon's port."""
    install(board, f"/sys/board/bin/{tool}", PROGRAM)
    client.send(payload)
    found = board.path("/sys/board/descriptors")
    wait_until(found.exists, tool)
    # The daemon keeps sockets and shared memory open; anything else belongs to the shell.
    assert "0 -> /dev/null" in found.read_text()
    assert "socket:" not in found.read_text()
    assert "/dev/shm/" not in found.read_text()
