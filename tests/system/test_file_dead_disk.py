"""A disk that does not answer delays only the download of its own files."""

from pathlib import Path

import pytest

from conftest import wait_until
from dead_disk import CONTENT, DeadDisk
from test_file_download import FILE, PIECE, ask, get, next_piece

FILM = "/mnt/film"
WHOLE = (0, len(CONTENT), CONTENT[:PIECE])
MISSING = (0, 0, b"")
READERS = 4


@pytest.fixture
def daemon(start):
    return start("recording_place=2\n")


@pytest.fixture
def client(make_client):
    return make_client("127.0.0.2")


@pytest.fixture
def disk(board):
    board.write("/tmp/clip", "content")
    return DeadDisk(board, "/mnt")


def readers(daemon):
    """The number of threads that read files."""
    names = []
    for task in Path(f"/proc/{daemon.pid}/task").iterdir():
        try:
            names.append((task / "comm").read_text())
        except (FileNotFoundError, ProcessLookupError):
            pass  # ended meanwhile
    return names.count("file-reader\n")


def test_other_files_and_requests_are_served(daemon, client, disk, make_client):
    other = make_client("127.0.0.3")
    assert get(client, FILM) == WHOLE
    disk.die()
    ask(client, FILM)
    disk.wait_asked()
    other.ask_info()
    assert other.receive()[2][0] == 1
    for _ in range(3):
        assert get(other, "/tmp/clip") == (0, 7, b"content")
    daemon.wait_error(f"File {FILM} not read within 250 ms, serving the next request\n")
    # The other client's requests were newer: nobody waits for this piece now.
    disk.revive()
    wait_until(lambda: readers(daemon) == 1, "one reader again")
    assert get(client, FILM) == WHOLE
    client.ask_info()
    assert client.receive()[0] != FILE


def test_a_slow_disk_is_waited_for(daemon, client, disk):
    disk.die()
    ask(client, FILM)
    daemon.wait_error(f"File {FILM} not read within 250 ms, serving the next request\n")
    disk.revive()
    assert next_piece(client) == WHOLE
    assert get(client, FILM, PIECE) == (PIECE, len(CONTENT), CONTENT[PIECE:])
    daemon.wait_error("File finished\n")


def test_requests_that_are_repeated_wait_for_a_slow_disk(daemon, client, disk):
    disk.die()
    for number in range(1, READERS + 3):
        ask(client, FILM)
        daemon.wait_error(f"File {FILM} download request offset 0", number)
        if number == 1:
            daemon.wait_error("not read within 250 ms")
    ask(client, "/tmp/clip")  # does not wait, and does not end the wait for the film
    assert next_piece(client) == (0, 7, b"content")
    ask(client, FILM)
    daemon.wait_error(f"File {FILM} download request offset 0", READERS + 3)
    disk.revive()
    assert next_piece(client) == WHOLE
    assert get(client, FILM, PIECE) == (PIECE, len(CONTENT), CONTENT[PIECE:])
    assert daemon.errors().count("not read within 250 ms") == 1
    wait_until(lambda: readers(daemon) == 1, "one reader again")


def test_readers_of_a_dead_disk_do_not_pile_up(daemon, client, disk):
    disk.die()
    for number in range(READERS):
        ask(client, FILM, number)
        daemon.wait_error("not read within 250 ms", number + 1)
    for number in range(3):
        assert get(client, FILM, READERS + number) == MISSING
    daemon.wait_error(f"{READERS} file reads hang already\n", 3)
    assert readers(daemon) == READERS
    disk.revive()
    wait_until(lambda: readers(daemon) == 0, "no reader left")
    assert get(client, FILM) == WHOLE
    assert get(client, "/tmp/clip") == (0, 7, b"content")
    assert readers(daemon) == 1
