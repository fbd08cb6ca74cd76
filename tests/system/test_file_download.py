"""File download: pieces byte for byte, their sizes and messages, and paths that are not files."""

import json
import os
import random
import socket
from pathlib import Path

import pytest

from conftest import wait_until

FILE = 4
PIECE = 59990
FINISHED = "File finished\n"


@pytest.fixture
def daemon(start):
    return start("recording_place=2\n")


@pytest.fixture
def client(make_client):
    return make_client("127.0.0.2")


def content(size, seed=1):
    return random.Random(seed).randbytes(size)


def ask(client, path, offset=0):
    client.send(json.dumps({"cmd": "file", "param": "get", "value": path,
                            "value2": str(offset)}).encode())


def next_piece(client, timeout=10.0):
    """The next piece as (offset, full size, data)."""
    payload = client.receive_type(FILE, timeout)[2]
    data = payload[10:]
    assert int.from_bytes(payload[:2], "little") == len(data) <= PIECE
    return (int.from_bytes(payload[2:6], "little"), int.from_bytes(payload[6:10], "little"), data)


def get(client, path, offset=0):
    ask(client, path, offset)
    return next_piece(client)


def said(daemon):
    """The lines that the service has printed, in order."""
    return [line for line in daemon.errors().splitlines()
            if line.startswith(("File %", "File /", "File  ", "file ", "Failed to read file",
                                "File finished"))]


def request_line(client, path, offset):
    return f"File {path} download request offset {offset} from {client.host}:{client.port}"


def piece_line(path, length, offset, full):
    return f"file {path} read {length}/{PIECE} bytes offset {offset} full size {full}"


@pytest.mark.parametrize("size, sizes", [
    (1, [1]),
    (PIECE - 1, [PIECE - 1]),
    (PIECE, [PIECE]),
    (PIECE + 1, [PIECE, 1]),
    (2 * PIECE, [PIECE, PIECE]),
    (100000, [PIECE, 40010]),
])
def test_pieces(board, daemon, client, size, sizes):
    data = content(size)
    board.write("/run/f.mp4", data)
    expected = []
    offset = 0
    for number, length in enumerate(sizes, 1):
        assert get(client, "/run/f.mp4", offset) == (offset, size, data[offset:offset + length])
        expected += [request_line(client, "/run/f.mp4", offset),
                     piece_line("/run/f.mp4", length, offset, size)]
        expected += ["File finished"] if number == len(sizes) else []
        wait_until(lambda: len(said(daemon)) >= len(expected), "the piece's messages")
        assert said(daemon) == expected
        offset += length


def test_an_empty_file(board, daemon, client):
    board.write("/run/empty", "")
    ask(client, "/run/empty")
    kind, _, payload = client.receive()
    assert (kind, payload) == (FILE, bytes(10))
    daemon.wait_error(FINISHED)
    assert said(daemon) == [request_line(client, "/run/empty", 0),
                            piece_line("/run/empty", 0, 0, 0), "File finished"]


def make_fifo(board, path):
    os.mkfifo(board.path(path))


def make_folder(board, path):
    board.path(path).mkdir()


def make_zero_device(board, path):
    board.path(path).symlink_to("/dev/zero")


def make_dangling_link(board, path):
    board.path(path).symlink_to("/run/nothing")


def make_socket(board, path):
    with socket.socket(socket.AF_UNIX) as made:
        folder = os.open(board.path("/run"), os.O_RDONLY)
        made.bind(f"/proc/self/fd/{folder}/{Path(path).name}")
        os.close(folder)


def make_nothing(board, path):
    pass


@pytest.mark.parametrize("make", [make_nothing, make_folder, make_fifo, make_zero_device,
                                  make_dangling_link, make_socket])
@pytest.mark.parametrize("offset", [0, 70000, -5])
def test_what_is_no_file_reads_as_missing(board, daemon, client, make, offset):
    make(board, "/run/odd")
    ask(client, "/run/odd", offset)
    kind, _, payload = client.receive()
    assert (kind, payload) == (FILE, bytes(10))
    daemon.wait_error(FINISHED)
    assert said(daemon) == [request_line(client, "/run/odd", offset),
                            "Failed to read file /run/odd", "File finished"]
    board.write("/run/good", "good")
    assert get(client, "/run/good") == (0, 4, b"good")


@pytest.mark.parametrize("path", ["/dev/zero", "/dev/null", "/", "/run", "/proc/self/mem/x", "f"])
def test_other_paths_that_are_no_file(daemon, client, path):
    assert get(client, path) == (0, 0, b"")
    daemon.wait_error(FINISHED)
    assert said(daemon)[-2:] == [f"Failed to read file {path}", "File finished"]


def test_a_link_to_a_file_is_followed(board, daemon, client):
    board.write("/run/recording", content(70000))
    board.path("/run/latest").symlink_to("recording")
    assert get(client, "/run/latest", 60000) == (60000, 70000, content(70000)[60000:])


@pytest.mark.parametrize("offset", [1, 40009, 40010, 99999])
def test_any_offset(board, daemon, client, offset):
    data = content(100000)
    board.write("/run/f", data)
    expected = data[offset:offset + PIECE]
    assert get(client, "/run/f", offset) == (offset, 100000, expected)
    wait_until(lambda: len(said(daemon)) >= 2, "the messages")
    get(client, "/run/other")
    finished = "File finished" in said(daemon)[:3]
    assert finished == (offset + len(expected) >= 100000)


@pytest.mark.parametrize("offset", [100000, 100001, 2**31 - 1])
def test_an_offset_behind_the_end(board, daemon, client, offset):
    board.write("/run/f", content(100000))
    assert get(client, "/run/f", offset) == (offset, 100000, b"")
    daemon.wait_error(FINISHED)
    assert said(daemon)[1:] == [piece_line("/run/f", 0, offset, 100000), "File finished"]


def open_files(daemon):
    return len(os.listdir(f"/proc/{daemon.pid}/fd"))


def test_a_negative_offset_gives_no_piece_and_leaves_no_file_open(board, daemon, client):
    board.write("/run/f", content(100000))
    get(client, "/run/f", 99990)
    daemon.wait_error(FINISHED)
    before = open_files(daemon)
    for number in range(2, 202):
        ask(client, "/run/f", -number)
        daemon.wait_error(FINISHED, number)
    wait_until(lambda: open_files(daemon) <= before, "no file left open")
    # The next packet answers the next request.
    assert get(client, "/run/f", 99999) == (99999, 100000, content(100000)[-1:])
    daemon.wait_error(FINISHED, 202)
    assert said(daemon)[3:5] == [request_line(client, "/run/f", -2), "File finished"]
    assert sum(line.startswith("file ") for line in said(daemon)) == 2


def test_served_files_are_closed(board, daemon, client):
    board.write("/run/f", content(100000))
    get(client, "/run/f")
    before = open_files(daemon)
    for _ in range(20):
        get(client, "/run/f", 0)
        get(client, "/run/f", PIECE)
        get(client, "/run")
    wait_until(lambda: open_files(daemon) <= before, "no file left open")


def test_a_file_that_grows_keeps_its_size_to_the_transfers_end(board, daemon, client):
    data = content(150000)
    board.write("/run/f", data[:100000])
    assert get(client, "/run/f") == (0, 100000, data[:PIECE])
    board.write("/run/f", data)
    assert get(client, "/run/f", PIECE) == (PIECE, 100000, data[PIECE:2 * PIECE])
    daemon.wait_error(FINISHED)
    # The next transfer reads the new file.
    assert get(client, "/run/f", 2 * PIECE) == (2 * PIECE, 150000, data[2 * PIECE:])


def test_a_file_that_shrinks(board, daemon, client):
    data = content(150000)
    board.write("/run/f", data)
    assert get(client, "/run/f") == (0, 150000, data[:PIECE])
    board.write("/run/f", data[:PIECE + 5])
    assert get(client, "/run/f", PIECE) == (PIECE, 150000, data[PIECE:PIECE + 5])
    assert get(client, "/run/f", 2 * PIECE) == (2 * PIECE, 150000, b"")
    assert FINISHED not in daemon.errors()


@pytest.mark.parametrize("path, offset", [("/run/none", 0), ("/run/f", -1)])
def test_a_failed_request_ends_the_transfer(board, daemon, client, path, offset):
    data = content(150000)
    board.write("/run/f", data[:100000])
    assert get(client, "/run/f")[1] == 100000
    board.write("/run/f", data)
    ask(client, path, offset)
    daemon.wait_error(FINISHED)
    if path == "/run/none":
        assert next_piece(client) == (0, 0, b"")
    assert get(client, "/run/f")[1] == 150000


def test_a_file_that_vanishes_amid_a_transfer(board, daemon, client):
    path = board.write("/run/f", content(100000))
    assert get(client, "/run/f")[1] == 100000
    path.unlink()
    assert get(client, "/run/f", PIECE) == (0, 0, b"")
    board.write("/run/f", content(150000))
    assert get(client, "/run/f")[1] == 150000


def test_another_file_amid_a_transfer_has_its_own_size(board, daemon, client, make_client):
    first, second = content(100000, 1), content(130000, 2)
    board.write("/run/a", first)
    board.write("/run/b", second)
    other = make_client("127.0.0.3")
    assert get(client, "/run/a") == (0, 100000, first[:PIECE])
    assert get(other, "/run/b") == (0, 130000, second[:PIECE])
    assert get(client, "/run/a", PIECE) == (PIECE, 100000, first[PIECE:])
    assert get(other, "/run/b", PIECE) == (PIECE, 130000, second[PIECE:2 * PIECE])
    assert get(other, "/run/b", 2 * PIECE) == (2 * PIECE, 130000, second[2 * PIECE:])


def download(client, path, data, lose_each=0):
    """Fetches and compares the whole file, losing every `lose_each`-th piece; returns the number of
    pieces received."""
    offset = received = 0
    while offset < len(data):
        at, full, piece = get(client, path, offset)
        received += 1
        if lose_each and received % lose_each == 0:
            continue
        assert (at, full) == (offset, len(data)) and piece
        assert piece == data[offset:offset + PIECE]
        offset += len(piece)
    return received


def test_a_large_file(board, daemon, client):
    data = memoryview(b"".join(content(10_000_000, seed) for seed in range(30)))
    board.write("/tmp/recording.mp4", bytes(data))
    assert download(client, "/tmp/recording.mp4", data) == 5001
    daemon.wait_error(FINISHED)


# The second file's last piece is lost; it does not matter that the transfer is over.
@pytest.mark.parametrize("size, received", [(95 * PIECE + 7, 106), (9 * PIECE + 7, 11)])
def test_lost_pieces_are_sent_again(board, daemon, client, size, received):
    data = content(size)
    board.write("/run/f", data)
    assert download(client, "/run/f", data, lose_each=10) == received
    daemon.wait_error(FINISHED, 1 if received == 106 else 2)


def test_the_largest_file(board, daemon, client):
    path = board.write("/run/f", "head")
    os.truncate(path, 2**31 - 1)
    assert get(client, "/run/f") == (0, 2**31 - 1, b"head" + bytes(PIECE - 4))
    assert FINISHED not in daemon.errors()
    assert get(client, "/run/f", 2**31 - 10) == (2**31 - 10, 2**31 - 1, bytes(9))
    daemon.wait_error(FINISHED)


@pytest.mark.parametrize("size", [2**31, 2**32 + 3, 5_000_000_000])
@pytest.mark.parametrize("offset", [0, 2**31 - 10])
def test_a_file_larger_than_its_size_can_tell(board, daemon, client, size, offset):
    path = board.write("/run/f", "head")
    os.truncate(path, size)
    assert get(client, "/run/f", offset) == (0, 0, b"")
    daemon.wait_error(FINISHED)
    assert said(daemon)[1:] == [f"File /run/f is too large to send: {size} bytes", "File finished"]


def test_a_file_that_grows_too_large_is_sent_as_it_was(board, daemon, client):
    path = board.write("/run/f", content(100000))
    assert get(client, "/run/f")[1] == 100000
    os.truncate(path, 2**31)
    assert get(client, "/run/f", PIECE)[:2] == (PIECE, 100000)
    daemon.wait_error(FINISHED)


def test_a_file_from_after_2038(board, daemon, client):
    path = board.write("/run/f", "head")
    os.utime(path, (2**33, 2**33))
    assert path.stat().st_mtime == 2**33
    assert get(client, "/run/f") == (0, 4, b"head")
    daemon.wait_error(FINISHED)
