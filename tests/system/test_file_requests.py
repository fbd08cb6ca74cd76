"""File download requests: how they are parsed, concurrent requests, and the worker's turns."""

import ctypes
import os
import platform
import time

import pytest

from conftest import Client, is_status, thread_of, wait_until
from test_file_download import (FILE, FINISHED, PIECE, ask, content, get, next_piece, piece_line,
                                request_line, said)


@pytest.fixture
def daemon(start):
    return start("recording_place=2\n")


@pytest.fixture
def client(make_client):
    return make_client("127.0.0.2")


def turns(daemon):
    """How often the worker has gone to sleep so far."""
    lines = (thread_of(daemon, "file-download") / "status").read_text().splitlines()
    return int(next(line for line in lines if line.startswith("voluntary")).split()[1])


LONG = "/run/" + "n" * 248 + "/f"  # 255 characters


def test_a_long_path(board, daemon, client):
    assert len(LONG) == 255
    board.write(LONG, "long")
    assert get(client, LONG) == (0, 4, b"long")
    daemon.wait_error(FINISHED)
    assert said(daemon)[1:] == [piece_line(LONG, 4, 0, 4), "File finished"]


@pytest.mark.parametrize("path", [LONG + "g", LONG + "/../" + "x" * 3000])
def test_a_longer_path_leads_to_no_file(board, daemon, client, path):
    board.write(LONG, "another file")
    assert get(client, path) == (0, 0, b"")
    daemon.wait_error(FINISHED)
    assert said(daemon) == [request_line(client, path, 0), f"Failed to read file {LONG}",
                            "File finished"]
    # Nor does its start count any longer.
    assert get(client, LONG) == (0, 12, b"another file")


def test_a_long_path_to_nothing(daemon, client):
    path = "/run/" + "n" * 3000
    assert get(client, path) == (0, 0, b"")
    daemon.wait_error(FINISHED)
    assert said(daemon)[1:] == [f"Failed to read file {path[:255]}", "File finished"]


def test_paths_are_no_formats_and_no_commands(board, daemon, client):
    for name in ("%s%n%d", "a b;touch x", "$(touch x)", "'quoted'"):
        board.write(f"/run/{name}", name)
        assert get(client, f"/run/{name}") == (0, len(name), name.encode())
        daemon.wait_error(piece_line(f"/run/{name}", len(name), 0, len(name)) + "\n")


def test_a_file_whose_reads_wait_for_news_holds_nobody_up(board, daemon, client):
    kernel_messages = "/proc/kmsg"  # counts as a regular file, of 0 bytes
    try:
        os.close(os.open(kernel_messages, os.O_RDONLY))
    except OSError as error:
        pytest.skip(f"{kernel_messages}: {error.strerror}")
    # Everything available is read; the next read would block.
    for _ in range(1000):
        offset, full, data = get(client, kernel_messages)
        assert (offset, full) == (0, 0)
        if not data:
            break
    board.write("/run/f", "data")
    for _ in range(2):
        assert get(client, kernel_messages)[:2] == (0, 0)
        assert get(client, "/run/f") == (0, 4, b"data")


@pytest.mark.parametrize("members", ["", ',"value":""', ',"value":null,"value2":"1"'])
def test_a_request_without_a_path_gets_the_empty_piece(board, daemon, client, members):
    board.write("/run/f", "data")
    client.send(f'{{"cmd":"file","param":"get"{members}}}'.encode())
    assert next_piece(client) == (0, 0, b"")
    daemon.wait_error(FINISHED)
    assert said(daemon)[1:] == ["Failed to read file ", "File finished"]
    seen = turns(daemon)
    wait_until(lambda: turns(daemon) >= seen + 3, "the worker's next turns")
    assert get(client, "/run/f") == (0, 4, b"data")


def test_a_number_is_a_path_as_well(board, daemon, client):
    client.send(b'{"cmd":"file","param":"get","value":7,"value2":1}')
    assert next_piece(client) == (0, 0, b"")
    daemon.wait_error(request_line(client, "7", 1) + "\n")


@pytest.mark.parametrize("member, offset", [
    ("", 0), (',"value2":""', 0), (',"value2":"two"', 0), (',"value2":2', 2), (',"value2":null', 0),
    (',"value2":" 2nd"', 2), (',"value2":"0x3"', 0), (',"value2":"99999999999"', 2**31 - 1)])
def test_how_an_offset_is_read(board, daemon, client, member, offset):
    board.write("/run/f", "data")
    client.send(b'{"cmd":"file","param":"get","value":"/run/f"%s}' % member.encode())
    assert next_piece(client) == (offset, 4, b"data"[offset:])


def test_only_get_is_served(board, daemon, client):
    board.write("/run/f", "data")
    board.write("/run/g", "other")
    for param in ("put", "GET", "get "):
        client.send(b'{"cmd":"file","param":"%s","value":"/run/f"}' % param.encode())
    assert get(client, "/run/g") == (0, 5, b"other")
    assert not [line for line in said(daemon) if "/run/f" in line]


def test_only_the_asking_client_gets_the_piece(board, daemon, client, registered_client):
    """Requests need no registration, and each piece has its own sequence number."""
    registered = registered_client(daemon, "127.0.0.3")
    board.write("/run/f", content(100000))
    numbers = []
    for offset in (0, PIECE):
        ask(client, "/run/f", offset)
        numbers.append(client.receive()[1])
    assert numbers[0] < numbers[1]
    for _ in range(5):
        assert is_status(registered.receive_any())
    ask(registered, "/run/f", 99999)
    assert registered.receive_type(FILE)[2][10:] == content(100000)[-1:]


def test_the_data_source_may_ask(board, daemon):
    board.write("/run/f", "data")
    source = Client(board, "127.0.0.4")
    source.socket.sendto(b'{"cmd":"file","param":"get","value":"/run/f","value2":"1"}',
                         ("127.0.0.1", 5000))
    assert next_piece(source) == (1, 4, b"ata")


class HeldWorker:
    """Stops the file worker in the sleep between two turns, when it holds no lock."""

    SEIZE, INTERRUPT, DETACH, WAIT_ALL = 0x4206, 0x4207, 17, 0x40000000
    # nanosleep, clock_nanosleep, restart_syscall
    SLEEPS = {"x86_64": {35, 230, 219}, "aarch64": {101, 115, 128}}

    def __init__(self, daemon):
        self.task = thread_of(daemon, "file-download")
        self.libc = ctypes.CDLL(None, use_errno=True)
        self.libc.ptrace.argtypes = [ctypes.c_long, ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p]
        self.libc.ptrace.restype = ctypes.c_long

    def trace(self, request):
        assert self.libc.ptrace(request, int(self.task.name), None, None) == 0, ctypes.get_errno()

    def is_asleep(self):
        self.trace(self.INTERRUPT)
        os.waitpid(int(self.task.name), self.WAIT_ALL)
        number = (self.task / "syscall").read_text().split()[0]
        if number.isdigit() and int(number) in self.SLEEPS[platform.machine()]:
            return True
        self.trace(self.DETACH)
        self.trace(self.SEIZE)
        return False

    def __enter__(self):
        self.trace(self.SEIZE)
        wait_until(self.is_asleep, "the worker asleep")
        return self

    def __exit__(self, *_):
        self.trace(self.DETACH)


def test_a_newer_request_replaces_one_that_waits(board, daemon, client, make_client):
    for name in "abc":
        board.write(f"/run/{name}", name * 10)
    other = make_client("127.0.0.3")
    with HeldWorker(daemon):
        ask(client, "/run/a", 1)
        daemon.wait_error(request_line(client, "/run/a", 1) + "\n")
        ask(other, "/run/b", 2)
        daemon.wait_error(request_line(other, "/run/b", 2) + "\n")
    assert next_piece(other) == (2, 10, b"b" * 8)
    daemon.wait_error(FINISHED)
    # The next packets answer the next requests.
    assert get(client, "/run/c", 3) == (3, 10, b"c" * 7)
    assert get(other, "/run/c", 4) == (4, 10, b"c" * 6)
    assert not [line for line in said(daemon) if line.startswith("file /run/a")]


def test_a_newer_request_of_the_same_file_replaces_one_that_waits(board, daemon, client):
    data = content(200000)
    board.write("/run/f", data)
    with HeldWorker(daemon):
        for offset in (0, 7, 60000):
            ask(client, "/run/f", offset)
            daemon.wait_error(request_line(client, "/run/f", offset) + "\n")
    assert next_piece(client) == (60000, 200000, data[60000:60000 + PIECE])
    assert get(client, "/run/f", 199999) == (199999, 200000, data[-1:])


def turns_a_second(daemon):
    begin, first = time.monotonic(), turns(daemon)
    time.sleep(0.5)  # the time measured
    return (turns(daemon) - first) / (time.monotonic() - begin)


def test_the_worker_turns_fast_during_a_transfer_only(board, daemon, client):
    board.write("/run/f", content(100000))
    assert 3 < turns_a_second(daemon) < 60
    get(client, "/run/f")
    assert turns_a_second(daemon) > 300
    get(client, "/run/f", PIECE)
    daemon.wait_error(FINISHED)
    assert 3 < turns_a_second(daemon) < 60


@pytest.mark.parametrize("path, offset", [("/run/none", 0), ("/run/f", -1), ("/run/f", 200000)])
def test_the_worker_is_idle_after_a_failed_request(board, daemon, client, path, offset):
    board.write("/run/f", content(100000))
    get(client, "/run/f")
    ask(client, path, offset)
    daemon.wait_error(FINISHED)
    assert 3 < turns_a_second(daemon) < 60


def test_the_worker_tires_of_a_client_that_has_gone(board, daemon, client):
    board.write("/run/f", content(100000))
    get(client, "/run/f")
    assert turns_a_second(daemon) > 300
    wait_until(lambda: turns_a_second(daemon) < 60, "an idle worker", 60)
    # A client that comes back finds the transfer unchanged.
    board.write("/run/f", content(150000))
    assert get(client, "/run/f", PIECE)[1] == 100000
