"""A disk of the board that does not answer, and the console that serves its recordings."""

import re
import threading
import time
from pathlib import Path

import pytest

from beacon_web import PATIENCE, Web, ready_daemon
from board import EMULATOR
from conftest import wait_until
from dead_disk import LARGE_FILE, LARGE_SIZE, DeadDisk

pytestmark = pytest.mark.skipif(bool(EMULATOR), reason="not built for another processor")

SILENT = "beacon-web: the board's disk does not answer; its recordings are not to be had\n"
AGAIN = "beacon-web: the board's disk answers again\n"


class Asked(threading.Thread):
    """A request that is waited for elsewhere."""

    def __init__(self, ask):
        super().__init__(daemon=True)
        self.ask, self.reply = ask, None
        self.start()

    def run(self):
        self.reply = self.ask()

    def wait(self):
        self.join(PATIENCE)
        assert self.reply is not None, "no reply"
        return self.reply


@pytest.fixture
def web(board, tmp_path):
    daemon = ready_daemon(board, tmp_path)
    made = Web(board, tmp_path).wait_ready()
    wait_until(lambda: made.get("/api/v1/recordings").json()["here"], "the board")
    wait_until(lambda: made.get("/api/v1/status").json()["present"], "the daemon's status")
    yield made
    assert made.process.poll() is None and daemon.alive()


@pytest.fixture
def disk(board, web):
    assert web
    made = DeadDisk(board, "/mnt")
    yield made
    if board.path("/tmp/dead").exists():
        made.revive()


def test_requests_for_its_files_are_given_up(board, web, disk):
    board.write("/media/film.mp4", "film")
    disk.die()
    waiting = Asked(lambda: web.get("/files/internal/a.mp4"))
    disk.wait_asked()
    deleting = Asked(lambda: web.change("POST", "/api/v1/recordings/delete",
                                        {"place": "external", "path": "film.mp4"}))
    assert web.get("/healthz").status == 200
    assert web.get("/api/v1/status").json()["present"]
    for asked in (waiting, deleting):
        reply = asked.wait()
        assert reply.status == 503
        assert reply.json()["error"] == "the board's disk does not answer"
    # From now on nobody waits.
    wait_until(lambda: web.err.read_text() == SILENT, "the line", PATIENCE)
    begun = time.monotonic()
    assert [web.get("/api/v1/recordings").status for _ in range(5)] == [503] * 5
    assert time.monotonic() - begun < 15
    # It is said once, not at each look.
    wait_until(lambda: time.monotonic() > begun + 0.5, "some looks at the disk")
    assert web.err.read_text() == SILENT
    disk.revive()
    wait_until(lambda: web.err.read_text() == SILENT + AGAIN, "the other line", PATIENCE)
    assert web.get("/files/internal/a.mp4").status == 404
    # What was given up is not done later.
    assert web.get("/files/external/film.mp4").body == b"film"


def is_still(web):
    """The console reads nothing for a while."""
    def count():
        return re.search("rchar: ([0-9]+)", Path(f"/proc/{web.pid}/io").read_text())[1]

    before = count()
    time.sleep(0.3)
    return count() == before


def test_a_download_that_is_broken_off_holds_nobody_up(web, disk):
    """To close its file waits for the disk."""
    download = web.connect()
    download.sendall(f"GET /files/internal/{LARGE_FILE} HTTP/1.1\r\nHost: {web.address}\r\n\r\n"
                     .encode())
    head = download.recv(500)
    assert head.startswith(b"HTTP/1.1 200 ") and f"content-length: {LARGE_SIZE}".encode() in head
    wait_until(lambda: is_still(web), "the console has read ahead")
    disk.die()
    download.close()
    disk.wait_asked()
    assert web.get("/healthz").status == 200
    disk.revive()
    assert web.get("/files/internal/a.mp4").status == 404


def begin_download(web):
    """A connection on which the large film comes, and the first bytes after the head."""
    download = web.connect()
    download.sendall(f"GET /files/internal/{LARGE_FILE} HTTP/1.1\r\nHost: {web.address}\r\n\r\n"
                     .encode())
    received = b""
    while b"\r\n\r\n" not in received:
        received += download.recv(500)
    head, _, rest = received.partition(b"\r\n\r\n")
    assert head.startswith(b"HTTP/1.1 200 ")
    return download, len(rest)


MUCH = 16 << 20  # more than is on its way


def receive_much(download, received):
    """Whether so much of the film comes before the connection ends."""
    while received < MUCH and (piece := download.recv(1 << 20)):
        received += len(piece)
    return received >= MUCH


def test_downloads_go_on_when_the_disk_is_back(web, disk):
    """It dies while their pieces are sent; nothing is read ahead meanwhile."""
    downloads = [begin_download(web) for _ in range(4)]
    disk.die()
    others = [Asked(lambda each=each: receive_much(*each)) for each in downloads]
    disk.wait_asked()
    wait_until(lambda: web.err.read_text() == SILENT, "the line", PATIENCE)
    assert all(each.reply is None for each in others)
    assert web.get("/healthz").status == 200
    assert web.is_sanitized() or web.memory() < 32 << 20
    disk.revive()
    assert all(each.wait() for each in others)
    wait_until(lambda: web.err.read_text() == SILENT + AGAIN, "the other line", PATIENCE)
