"""Standard error and its reader: nothing about them ends the daemon or makes it wait."""

import os
import socket

import pytest

from board import EMULATOR
from commands import install
from conftest import BINARY, BUILD, CONFIG, SANITIZERS, wait_until

DROPPED = "Standard error was not read: "
# Each makes a line of this length.
LONG_COMMAND = b'{"cmd":"none","param":"' + b"x" * 2000 + b'"}'


class Reader:
    """What reads the daemon's standard error, or does not."""

    def __init__(self, board, start_daemon, make_ends):
        self.reading, writing = make_ends()
        board.write(CONFIG, "recording_place=2\n")
        self.process = start_daemon(writing)
        os.close(writing)
        self.text = b""

    def drain(self):
        """Reads what is there."""
        os.set_blocking(self.reading, False)
        try:
            while piece := os.read(self.reading, 1 << 20):
                self.text += piece
        except BlockingIOError:
            pass

    def read_more(self, what, timeout=20.0):
        """Reads until that text has come."""
        def has_come():
            self.drain()
            return what in self.text

        wait_until(has_come, f"{what} on standard error", timeout)

    def close(self):
        os.close(self.reading)


def make_socket():
    ends = socket.socketpair()
    return tuple(end.detach() for end in ends)


@pytest.fixture
def make_reader(board):
    def make(make_ends, runner=(), **env):
        def start_daemon(writing):
            return board.popen(*runner, *EMULATOR, BINARY, env={**SANITIZERS, **env},
                               stderr=writing)

        return Reader(board, start_daemon, make_ends)

    return make


def ask(client):
    """Waits until the daemon has dealt with what the client has sent before."""
    client.ask_info()
    while client.receive(timeout=10)[2][0] != 1:
        pass


def wait_answer(client):
    """Waits until the daemon answers at all."""
    def is_answered():
        client.ask_info()
        try:
            return client.receive_any(0.2)
        except TimeoutError:
            return None

    wait_until(is_answered, "an answer", 20.0)


@pytest.mark.parametrize("make_ends", [os.pipe, make_socket])
def test_a_reader_that_does_not_read_holds_nothing_up(make_reader, make_client, make_ends):
    reader, client = make_reader(make_ends), make_client()
    wait_answer(client)
    # Far more than a pipe or a socket holds.
    for _ in range(1000):
        client.send(LONG_COMMAND)
        ask(client)
    reader.drain()
    # What there was no room for is told with the next line.
    client.send(b'{"cmd":"none","param":"last"}')
    reader.read_more(b'"last"}\n')
    seen = reader.text.count(LONG_COMMAND)
    assert 5 < seen < 990
    lines = reader.text.decode().splitlines()
    told = [line for line in lines if line.startswith(DROPPED)]
    assert sum(int(line.split()[5]) for line in told) >= 1000 - seen
    assert lines[-1] == 'parse_packet json {"cmd":"none","param":"last"}'
    # Whole lines only.
    long_lines = [line for line in lines if "xxx" in line]
    assert set(long_lines) == {f"parse_packet json {LONG_COMMAND.decode()}"}
    assert reader.process.poll() is None
    reader.close()


@pytest.mark.parametrize("make_ends", [os.pipe, make_socket])
def test_a_reader_that_has_gone_does_not_end_it(make_reader, make_client, make_ends):
    reader, client = make_reader(make_ends), make_client()
    wait_answer(client)
    reader.close()
    for _ in range(3):
        client.send(LONG_COMMAND)
        ask(client)
    assert reader.process.poll() is None


def test_the_flags_of_a_shared_descriptor_stay(make_reader, make_client):
    kept = []

    def make_ends():
        reading, writing = os.pipe()
        kept.append(os.dup(writing))
        return reading, writing

    reader, client = make_reader(make_ends), make_client()
    wait_answer(client)
    assert os.get_blocking(kept[0])
    os.close(kept[0])
    reader.close()


WITHOUT_PROC = ("unshare", "--mount", "/sys/board/sh", "-c",
                '/usr/bin/mount -t tmpfs none /proc && exec "$@"', "sh")


@pytest.mark.skipif("san" in BUILD.name or bool(EMULATOR), reason="these need /proc themselves")
def test_a_pipe_that_cannot_be_opened_once_more(make_reader, make_client):
    # The loader finds libraries beside the program by way of /proc, too.
    reader, client = make_reader(os.pipe, WITHOUT_PROC, LD_LIBRARY_PATH=str(BUILD)), make_client()
    wait_answer(client)
    for _ in range(200):
        client.send(LONG_COMMAND)
        ask(client)
    reader.read_more(LONG_COMMAND + b"\n")
    assert reader.process.poll() is None
    reader.close()


def test_commands_write_to_the_real_standard_error(board, make_reader, make_client):
    install(board, "/sys/board/bin/ip", "#!/sys/board/sh\necho told by a command >&2\n")
    reader = make_reader(os.pipe)
    reader.read_more(b"told by a command\n")
    reader.close()


@pytest.mark.parametrize("closed", ["<&-", ">&-", "2>&-", "<&- >&- 2>&-"])
def test_closed_standard_descriptors_are_filled(board, make_client, closed):
    board.write(CONFIG, "recording_place=2\n")
    sanitizers = [f"{name}={value}" for name, value in SANITIZERS.items()]
    program = " ".join(map(str, ["exec env", *sanitizers, *EMULATOR, BINARY, closed]))
    process = board.popen("/sys/board/sh", "-c", program)
    client = make_client()
    wait_answer(client)
    client.send(LONG_COMMAND)
    ask(client)
    [pid] = board.run("pidof", "quillorbeacon").decode().split()
    for number, mark in enumerate(("<&-", " >&-", "2>&-")):
        if mark in " " + closed:
            assert os.readlink(board.path(f"/proc/{pid}/fd/{number}")) == "/dev/null"
    for shared in ("shared_rc_raw", "shared_camstate"):
        assert b"parse_packet" not in board.path(f"/dev/shm/{shared}").read_bytes()
    assert process.poll() is None
