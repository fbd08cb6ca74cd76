"""The console's list of recordings and what it sends of them, on a board with the real daemon."""

import http.client
import os

import pytest

from beacon_web import Web, ready_daemon, staged
from board import EMULATOR, Board
from conftest import BUILD, wait_until

pytestmark = pytest.mark.skipif(bool(EMULATOR), reason="not built for another processor")

FILM = "DCIM/20261122/081107.mp4"
CONTENT = bytes(range(256)) * 2000
SECRET = b"nobody may read this"


class Stage:
    """A board with the daemon, the console, a film, a photo and what must not be reached."""

    def __init__(self, board, folder):
        self.board = board
        self.daemon = ready_daemon(board, folder)
        self.web = Web(board, folder).wait_ready()
        board.write(f"/media/{FILM}", CONTENT)
        board.write("/media/DCIM/20261122/081107.jpg", b"preview")
        board.write("/mnt/DCIM/20261122/photo.jpg", b"photo")
        board.write("/tmp/secret.mp4", SECRET)
        board.write("/tmp/elsewhere/secret.mp4", SECRET)
        os.symlink("/tmp/secret.mp4", board.path("/media/link.mp4"))
        os.symlink("../tmp/secret.mp4", board.path("/media/relative.mp4"))
        os.symlink("/tmp/elsewhere", board.path("/media/folder"))


@pytest.fixture(scope="module")
def stage(tmp_path_factory):
    with Board(BUILD) as board:
        yield from staged(Stage(board, tmp_path_factory.mktemp("recordings")))


@pytest.fixture
def web(stage):
    return stage.web


def paths(web):
    return {(file["place"], file["path"]) for file in web.get("/api/v1/recordings").json()["files"]}


def test_the_list(stage, web):
    answer = web.get("/api/v1/recordings").json()
    assert answer["here"] and answer["complete"]
    files = {file["path"]: file for file in answer["files"]}
    assert set(files) == {FILM, "DCIM/20261122/photo.jpg"}
    modified = int(stage.board.path(f"/media/{FILM}").stat().st_mtime)
    assert files[FILM] == {"place": "external", "path": FILM, "size": len(CONTENT), "film": True,
                           "modified": modified, "preview": "DCIM/20261122/081107.jpg"}
    assert files["DCIM/20261122/photo.jpg"]["place"] == "internal"
    assert web.get("/files/external/DCIM/20261122/081107.jpg").body == b"preview"


def test_a_film_is_downloaded(web):
    reply = web.get(f"/files/external/{FILM}")
    assert reply.status == 200 and reply.body == CONTENT
    assert reply.headers["content-type"] == "video/mp4"
    assert reply.headers["accept-ranges"] == "bytes"
    head = web.request("HEAD", f"/files/external/{FILM}")
    assert head.body == b"" and head.headers["content-length"] == str(len(CONTENT))


def test_a_download_is_resumed(web):
    address = f"/files/external/{FILM}"
    size = len(CONTENT)
    whole = web.request("HEAD", address).headers
    for header, first, last in (("bytes=300000-", 300000, size - 1), ("bytes=5-9", 5, 9),
                                ("bytes=-10", size - 10, size - 1)):
        part = web.get(address, Range=header)
        assert part.status == 206 and part.body == CONTENT[first:last + 1], header
        assert part.headers["content-range"] == f"bytes {first}-{last}/{size}"
    for version in (whole["etag"], whole["last-modified"]):
        same = web.get(address, **{"Range": "bytes=7-", "If-Range": version})
        assert same.status == 206 and same.body == CONTENT[7:]
    other = web.get(address, **{"Range": "bytes=7-", "If-Range": '"another"'})
    assert other.status == 200 and other.body == CONTENT
    beyond = web.get(address, Range=f"bytes={size}-")
    assert beyond.status == 416 and beyond.headers["content-range"] == f"bytes */{size}"


def test_one_connection_downloads_again_and_again(web):
    connection = http.client.HTTPConnection(web.host, web.port)
    connection.sock = web.connect()
    for first in (0, 400000, 200000):
        connection.request("GET", f"/files/external/{FILM}",
                           headers={"Host": web.address, "Range": f"bytes={first}-"})
        assert connection.getresponse().read() == CONTENT[first:]
    connection.request("GET", "/healthz", headers={"Host": web.address})
    assert connection.getresponse().read() == b"ok\n"


def raw_request(web, path):
    """What comes back for a path that is sent as it is."""
    made = web.connect()
    made.sendall(b"GET " + path + f" HTTP/1.1\r\nHost: {web.address}\r\nConnection: close\r\n\r\n"
                 .encode())
    received = b""
    try:
        while piece := made.recv(65536):
            received += piece
    except ConnectionResetError:
        pass
    return received


@pytest.mark.parametrize("path", [
    b"/files/external/../tmp/secret.mp4",
    b"/files/external/DCIM/../../tmp/secret.mp4",
    b"/files/external/%2e%2e/tmp/secret.mp4",
    b"/files/external/..%2ftmp%2fsecret.mp4",
    b"/files/external/DCIM/%2e%2e%2f%2e%2e%2ftmp/secret.mp4",
    b"/files/external/%252e%252e/tmp/secret.mp4",
    b"/files/external//tmp/secret.mp4",
    b"/files/external/%2ftmp/secret.mp4",
    b"/files/external/link.mp4",
    b"/files/external/relative.mp4",
    b"/files/external/folder/secret.mp4",
    b"/files/external/../../tmp/secret.mp4",
    b"/files//tmp/secret.mp4",
    b"/files/../tmp/secret.mp4",
    b"/files/tmp/secret.mp4",
    b"/files/external/" + b"a" * 3000 + b".mp4",
    b"/files/external/" + b"a/" * 400 + b"a.mp4",
    b"/files/external/\xff\xfe.mp4",
    b"/files/external",
    b"/files/",
])
def test_nothing_else_is_sent(web, path):
    received = raw_request(web, path)
    assert SECRET not in received
    assert b" 200 " not in received.partition(b"\r\n")[0], received[:100]
    assert web.get("/healthz").status == 200


def test_a_zero_byte_is_no_end_of_a_name(web):
    received = raw_request(web, b"/files/external/" + FILM.encode() + b"%00.mp4")
    assert b" 200 " not in received.partition(b"\r\n")[0]


def test_names_with_unusual_letters(stage, web):
    stage.board.write("/media/a b+c #1 ä%41.mp4", b"unusual")
    assert web.get("/files/external/a%20b%2Bc%20%231%20%C3%A4%2541.mp4").body == b"unusual"
    stage.board.path("/media/a b+c #1 ä%41.mp4").unlink()


def start_large_download(stage, web, name):
    """A connection that has the beginning of a large file and reads no further."""
    with open(stage.board.path(f"/media/{name}"), "wb") as file:
        file.truncate(60 << 20)
    made = web.connect()
    made.sendall(f"GET /files/external/{name} HTTP/1.1\r\nHost: {web.address}\r\n\r\n".encode())
    assert made.recv(100).startswith(b"HTTP/1.1 200 ")
    return made


def read_to_the_end(made):
    count = 0
    while piece := made.recv(1 << 20):
        count += len(piece)
    return count


def test_a_file_that_vanishes_is_still_sent(stage, web):
    made = start_large_download(stage, web, "vanishes.mp4")
    stage.board.path("/media/vanishes.mp4").unlink()
    count = 0
    while count < 60 << 20 and (piece := made.recv(1 << 20)):
        count += len(piece)
    assert count >= 60 << 20
    assert web.get("/files/external/vanishes.mp4").status == 404


def test_a_file_that_grows_or_shrinks(stage, web):
    large = stage.board.path("/media/changes.mp4")
    made = start_large_download(stage, web, "changes.mp4")
    with open(large, "r+b") as file:
        file.truncate(1 << 20)
    assert read_to_the_end(made) < 60 << 20  # ended: the rest is not there
    with open(large, "r+b") as file:
        file.truncate(3 << 20)
    assert len(web.get("/files/external/changes.mp4").body) == 3 << 20
    before = web.request("HEAD", "/files/external/changes.mp4").headers["etag"]
    with open(large, "ab") as file:
        file.write(b"more")
    grown = web.get("/files/external/changes.mp4", **{"Range": "bytes=5-", "If-Range": before})
    assert grown.status == 200 and len(grown.body) == (3 << 20) + 4
    # Another film of the same size is another one, too.
    before = web.request("HEAD", "/files/external/changes.mp4").headers["etag"]
    os.utime(large, (1e9, 1e9))
    other = web.get("/files/external/changes.mp4", **{"Range": "bytes=5-", "If-Range": before})
    assert other.status == 200
    large.unlink()


def test_a_stuck_download_holds_nobody_up(stage, web):
    stuck = [start_large_download(stage, web, "stuck.mp4") for _ in range(10)]
    assert web.get(f"/files/external/{FILM}").body == CONTENT
    assert web.is_sanitized() or web.memory() < 32 << 20
    for made in stuck:
        made.close()
    stage.board.path("/media/stuck.mp4").unlink()


def test_deleting(stage, web):
    stage.board.write("/media/DCIM/x/old.mp4", b"old")
    stage.board.write("/media/DCIM/x/old.jpg", b"its preview")
    wanted = {"place": "external", "path": "DCIM/x/old.mp4"}
    for headers, status in (({"Origin": "http://evil.example"}, 403), ({"X-Beacon": ""}, 403),
                            ({"Content-Type": "text/plain"}, 415)):
        assert web.change("POST", "/api/v1/recordings/delete", wanted, **headers).status == status
    assert ("external", "DCIM/x/old.mp4") in paths(web)
    assert web.change("POST", "/api/v1/recordings/delete", wanted).status == 200
    assert not stage.board.path("/media/DCIM/x/old.mp4").exists()
    assert not stage.board.path("/media/DCIM/x/old.jpg").exists()
    assert web.change("POST", "/api/v1/recordings/delete", wanted).status == 404


@pytest.mark.parametrize("wanted, status", [
    ({"place": "external", "path": "../tmp/secret.mp4"}, 404),
    ({"place": "external", "path": "link.mp4"}, 404),
    ({"place": "external", "path": "folder/secret.mp4"}, 404),
    ({"place": "external", "path": "/tmp/secret.mp4"}, 404),
    ({"place": "external", "path": "DCIM"}, 404),
    ({"place": "external", "path": f"{FILM}\0.mp4"}, 404),
    ({"place": "/tmp", "path": "secret.mp4"}, 404),
    ({"place": 1, "path": ["a"]}, 422),
    ({}, 422),
    ([], 400),
])
def test_nothing_else_is_deleted(stage, web, wanted, status):
    assert web.change("POST", "/api/v1/recordings/delete", wanted).status == status
    assert stage.board.path("/tmp/secret.mp4").exists()
    assert stage.board.path("/tmp/elsewhere/secret.mp4").exists()
    assert stage.board.path(f"/media/{FILM}").exists()


def test_off_the_board_it_says_why_not(stage, tmp_path):
    # Nobody answers there, but it is no address of this machine.
    stage.board.run("ip", "address", "add", "10.9.9.1/24", "dev", "lo")
    web = Web(stage.board, tmp_path, "--board", "10.9.9.2", listen="127.0.0.1:0").wait_ready()
    wait_until(lambda: web.get("/api/v1/status").json()["picture_problem"], "the board's state")
    answer = web.get("/api/v1/recordings").json()
    assert "clients" not in web.get("/api/v1/status").json()
    assert answer["here"] is False and answer["files"] == [] and "another machine" in answer["why"]
    assert web.get(f"/files/external/{FILM}").status == 404
    reply = web.change("POST", "/api/v1/recordings/delete", {"place": "external", "path": FILM})
    assert reply.status == 404 and stage.board.path(f"/media/{FILM}").exists()
