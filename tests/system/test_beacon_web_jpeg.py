"""The console's JPEGs for those who embed the picture: one, or a stream of them."""

import base64
import os
import select
import signal
import subprocess
from pathlib import Path

import pytest

from beacon_web import Web, ready_daemon
from board import EMULATOR, Board
from conftest import BUILD, SANITIZERS, wait_until

pytestmark = pytest.mark.skipif(bool(EMULATOR), reason="not built for another processor")

SIMULATOR = BUILD / "beacon-sim"
PATIENCE = 60.0


class Stage:
    """A board with the daemon and a camera; consoles come and go."""

    def __init__(self, board, folder):
        self.board, self.folder = board, folder
        self.daemon = ready_daemon(board, folder)
        self.camera = board.popen(SIMULATOR, "--size", "320x180", "--bitrate", "800", "--no-audio",
                                  env=SANITIZERS, stdin=subprocess.DEVNULL,
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def serve(self, **environment):
        """A console that has the picture."""
        web = Web(self.board, self.folder, listen="127.0.0.1:0", env=environment).wait_ready()
        wait_until(lambda: web.get("/api/v1/status").json()["picture_problem"] == "", "the picture",
                   PATIENCE)
        return web


@pytest.fixture(scope="module")
def stage(tmp_path_factory):
    with Board(BUILD) as board:
        yield Stage(board, tmp_path_factory.mktemp("jpeg"))


@pytest.fixture
def serve(stage):
    """serve(PATH=...): a console that ends with the test."""
    started = []

    def run(**environment):
        started.append(stage.serve(**environment))
        return started[-1]

    yield run
    for web in started:
        if web.process.poll() is None:
            os.kill(web.pid, signal.SIGTERM)
            assert web.process.wait(60) == 0


def children(web):
    """The console's child processes, the dead ones too."""
    threads = Path(f"/proc/{web.pid}/task").iterdir()
    return [int(pid) for thread in threads for pid in (thread / "children").read_text().split()]


def size_of(jpeg):
    seen = subprocess.run(["ffprobe", "-v", "error", "-f", "jpeg_pipe", "-show_entries",
                           "stream=codec_name,width,height", "-of", "csv=p=0", "-"], input=jpeg,
                          check=True, stdout=subprocess.PIPE, timeout=60).stdout
    return seen.decode().strip()


class Stream:
    """A viewer of the stream."""

    def __init__(self, web, **fields):
        self.socket = web.connect()
        self.socket.settimeout(PATIENCE)
        lines = ["GET /stream.mjpeg HTTP/1.1", f"Host: {web.address}",
                 *(f"{name}: {value}" for name, value in fields.items())]
        self.socket.sendall("\r\n".join([*lines, "", ""]).encode())
        self.file = self.socket.makefile("rb")
        self.status = self.file.readline()
        self.headers = self.read_headers()

    def read_headers(self):
        lines = iter(self.file.readline, b"\r\n")
        return dict(line.decode().strip().lower().split(": ", 1) for line in lines)

    def read_jpeg(self):
        assert self.file.readline() == b"--picture\r\n"
        headers = self.read_headers()
        assert headers["content-type"] == "image/jpeg"
        jpeg = self.file.read(int(headers["content-length"]))
        assert self.file.readline() == b"\r\n"
        return jpeg

    def close(self):
        self.file.close()
        self.socket.close()


def test_one_picture(serve):
    web = serve()
    assert children(web) == []
    reply = web.get("/snapshot.jpg")
    assert reply.status == 200 and reply.headers["content-type"] == "image/jpeg"
    assert reply.headers["cross-origin-resource-policy"] == "cross-origin"
    first = children(web)
    # Each is a new one, from the same process.
    assert len({web.get("/snapshot.jpg").body for _ in range(6)} | {reply.body}) == 7
    assert children(web) == first and len(first) == 1
    assert web.get("/healthz").headers["cross-origin-resource-policy"] == "same-origin"
    assert size_of(reply.body) == "mjpeg,320,180"
    wait_until(lambda: children(web) == [], "the end of ffmpeg", PATIENCE)
    assert web.get("/snapshot.jpg").status == 200  # and again


def test_other_sites_show_no_pictures_of_a_console_with_a_password(stage, tmp_path):
    stage.board.write("/tmp/password", "open sesame\n")
    told = {"Authorization": "Basic " + base64.b64encode(b"me:open sesame").decode()}
    web = Web(stage.board, tmp_path, "--password-file", "/tmp/password",
              listen="127.0.0.1:0").wait_ready()
    reply = wait_until(lambda: next((each for each in [web.get("/snapshot.jpg", **told)]
                                     if each.status == 200), None), "the picture", PATIENCE)
    assert reply.headers["cross-origin-resource-policy"] == "same-site"
    # A logout ends the stream that the cookie began.
    cookie = web.change("POST", "/login", {"password": "open sesame"}).headers["set-cookie"]
    begun = Stream(web, Cookie=cookie.partition(";")[0])
    stays = Stream(web, **told)
    assert begun.read_jpeg() and stays.read_jpeg()
    assert web.change("POST", "/logout", {}, Cookie=cookie.partition(";")[0]).status == 200
    wait_until(lambda: not begun.file.read(1000), "the stream's end")
    for _ in range(8):
        stays.read_jpeg()


def test_one_process_for_all_viewers_of_the_stream(serve):
    web = serve()
    viewers = [Stream(web) for _ in range(5)]
    for viewer in viewers:
        assert viewer.status == b"HTTP/1.1 200 OK\r\n"
        assert viewer.headers["content-type"] == "multipart/x-mixed-replace; boundary=picture"
        assert "content-length" not in viewer.headers
    stuck = viewers.pop()  # does not read
    assert stuck
    for viewer in viewers:
        pictures = [viewer.read_jpeg() for _ in range(20)]
        assert len(set(pictures)) == 20 and size_of(pictures[-1]) == "mjpeg,320,180"
    assert len(children(web)) == 1
    for viewer in [*viewers, stuck]:
        viewer.close()
    wait_until(lambda: children(web) == [], "the end of ffmpeg", PATIENCE)


def test_too_many_viewers(serve):
    web = serve()
    viewers = [Stream(web) for _ in range(13)]
    assert [viewer.status[9:12] for viewer in viewers] == [b"200"] * 12 + [b"503"]


def test_ffmpeg_that_dies_is_started_again(serve):
    web = serve()
    viewer = Stream(web)
    viewer.read_jpeg()
    (first,) = children(web)
    os.kill(first, signal.SIGKILL)
    wait_until(lambda: children(web) not in ([], [first]), "another one", PATIENCE)
    for _ in range(5):
        viewer.read_jpeg()


def test_ffmpeg_ends_with_the_console(serve):
    web = serve()
    viewer = Stream(web)
    viewer.read_jpeg()
    ended = os.pidfd_open(children(web)[0])
    os.kill(web.pid, signal.SIGKILL)
    web.process.wait(60)
    poll = select.poll()
    poll.register(ended)
    assert poll.poll(PATIENCE * 1000)
    os.close(ended)


def test_without_ffmpeg_it_says_so(serve):
    web = serve(PATH="/nothing")
    for path in ("/snapshot.jpg", "/stream.mjpeg"):
        reply = web.get(path)
        assert reply.status == 503
        assert reply.json()["error"] == "ffmpeg makes these pictures, and it is not installed"


@pytest.mark.parametrize("does", ["exec sleep 1000", "exit 1", "echo nothing of use; cat",
                                  "exec tr '\\0' a < /dev/zero"])
def test_an_ffmpeg_that_does_not_work(stage, serve, does):
    stage.board.write("/tmp/programs/ffmpeg", f"#!/bin/sh\n{does}\n").chmod(0o755)
    web = serve(PATH="/tmp/programs:/usr/bin:/bin")
    connection = web.connect()
    connection.settimeout(PATIENCE)
    connection.sendall(f"GET /snapshot.jpg HTTP/1.1\r\nHost: {web.address}\r\n\r\n".encode())
    assert web.get("/healthz").status == 200
    assert connection.recv(4096).startswith(b"HTTP/1.1 503 ")
    wait_until(lambda: children(web) == [], "the end of it", PATIENCE)


def test_without_a_picture_it_says_why(board, tmp_path):
    web = Web(board, tmp_path).wait_ready()
    wait_until(lambda: "No daemon runs" in web.get("/snapshot.jpg").json()["error"], "the reason")
    assert web.get("/stream.mjpeg").status == 503
    assert children(web) == []
