"""beacon-web, the console for browsers: requests, pictures and what it says, with the real daemon."""

import gzip
import itertools
import json
import os
import re
import select
import signal
import socket
import struct
import subprocess
import threading
import time

import h264_streams
import pytest

from beacon_web import PROGRAM, Web, film, next_text, ready_daemon, staged
from board import EMULATOR, Board, promised
from conftest import BUILD, REPOSITORY, SANITIZERS, wait_until
from h264_streams import encode, joined, unit_type, units

pytestmark = pytest.mark.skipif(bool(EMULATOR), reason="not built for another processor")

SIMULATOR = BUILD / "beacon-sim"
SMALL = ["--size", "320x180", "--bitrate", "800", "--no-audio"]


class Stage:
    """A board with the daemon, the simulated camera and the console."""

    def __init__(self, board, folder):
        self.board = board
        self.daemon = ready_daemon(board, folder)
        self.camera = board.popen(SIMULATOR, *SMALL, env=SANITIZERS, stdin=subprocess.DEVNULL,
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.web = Web(board, folder, "--allow-host", "board.test").wait_ready()


@pytest.fixture(scope="module")
def stage(tmp_path_factory):
    with Board(BUILD) as board:
        yield from staged(Stage(board, tmp_path_factory.mktemp("web")))


@pytest.fixture
def web(stage):
    return stage.web


def test_the_page_and_its_files(web):
    page = web.get("/")
    assert page.status == 200 and page.headers["content-type"] == "text/html; charset=utf-8"
    assert "script-src 'self'" in page.headers["content-security-policy"]
    assert "access-control-allow-origin" not in page.headers
    for file in (REPOSITORY / "tools/beacon_web/page").iterdir():
        reply = web.get(f"/{file.name}")
        assert reply.status == 200 and reply.headers["content-encoding"] == "gzip", file
        assert gzip.decompress(reply.body) == file.read_bytes()
    assert gzip.decompress(page.body) == (REPOSITORY
                                          / "tools/beacon_web/page/index.html").read_bytes()
    assert web.request("HEAD", "/").body == b""
    assert web.get("/healthz").body == b"ok\n"
    assert web.get("/nothing").status == 404


def test_foreign_names_are_refused(web):
    for host in ("evil.example", "board.test.evil.example", "127.0.0.1.evil.example"):
        reply = web.get("/", Host=host)
        assert reply.status == 421 and "error" in reply.json()
    for host in ("board.test", "localhost:8080", "10.1.2.3"):
        assert web.get("/", Host=host).status == 200


def test_changes_of_foreign_pages_are_refused(web):
    assert web.change("POST", "/api/v1/nothing", {}).status == 404
    for headers, status in (({"Origin": "http://evil.example"}, 403), ({"Origin": "null"}, 403),
                            ({"X-Beacon": ""}, 403), ({"Content-Type": "text/plain"}, 415)):
        assert web.change("POST", "/api/v1/nothing", {}, **headers).status == status, headers
    assert web.change("DELETE", "/api/v1/nothing", {}).status in (404, 405)


def refused_upgrade(web, path="/live", **headers):
    """The first line that answers a request for a WebSocket."""
    fields = {"Host": web.address, "Origin": f"http://{web.address}", "Upgrade": "websocket",
              "Connection": "Upgrade", "Sec-WebSocket-Version": "13",
              "Sec-WebSocket-Key": "dGhlIHNhbXBsZSBub25jZQ==", **headers}
    lines = [f"GET {path} HTTP/1.1", *(f"{name}: {value}" for name, value in fields.items())]
    made = web.connect()
    made.sendall("\r\n".join([*lines, "", ""]).encode())
    return made.recv(4096).partition(b"\r\n")[0]


def test_web_sockets_of_foreign_pages_are_refused(web):
    assert b" 101 " in refused_upgrade(web)
    assert b" 403" in refused_upgrade(web, Origin="http://evil.example")
    assert b" 421" in refused_upgrade(web, Host="evil.example", Origin="http://evil.example")
    assert b" 404" in refused_upgrade(web, path="/other")


def test_too_long_requests_are_survived(web):
    for request in (b"GET /" + b"a" * 20000 + b" HTTP/1.1\r\n\r\n", b"\0" * 5000, b"GET\r\n\r\n",
                    b"POST / HTTP/1.1\r\nContent-Length: -5\r\n\r\n"):
        made = web.connect()
        try:
            made.sendall(request)
            made.shutdown(socket.SHUT_WR)
            while made.recv(65536):
                pass
        except OSError as error:
            assert not isinstance(error, TimeoutError), request[:20]
    assert web.change("POST", "/api/v1/nothing", "x" * 100000).status == 413
    live = web.live()
    live.send("x" * 100000)
    with pytest.raises(Exception):
        while True:
            live.recv()
    assert web.get("/healthz").status == 200


def times_of(pieces):
    """The time and duration of each fragment."""
    return [(struct.unpack(">Q", piece[60:68])[0], struct.unpack(">I", piece[88:92])[0])
            for piece in pieces]


def probe(data, *options):
    return subprocess.run(["ffprobe", "-v", "error", *options, "-"], input=data, check=True,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=60)


def test_the_film_plays_without_gaps(web):
    live = web.live()
    video = next_text(live, "video")
    assert (video["width"], video["height"]) == (320, 180)
    header, *pictures = film(live, 60)
    assert header[4:8] == b"ftyp" and all(piece[4:8] == b"moof" for piece in pictures)
    times = times_of(pictures)
    assert times[0][0] == 0
    for (time_before, duration), (after, _) in zip(times, times[1:]):
        assert after == time_before + duration
    seen = probe(header + b"".join(pictures), "-count_frames", "-show_entries",
                 "stream=width,height,nb_read_frames", "-of", "json")
    assert seen.stderr == b""
    assert json.loads(seen.stdout)["streams"] == [
        {"width": 320, "height": 180, "nb_read_frames": "60"}]
    live.close()


def test_a_newcomer_sees_a_picture_at_once(web):
    live = web.live()
    next_text(live, "video")
    film(live, 5)
    begun = time.monotonic()
    other = web.live()
    assert film(other, 1)[1][4:8] == b"moof"
    assert time.monotonic() - begun < promised(1.0)


def test_a_stuck_browser_holds_nobody_up(web):
    stuck = web.live()  # never reads
    stuck.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    live = web.live()
    film(live, 10)
    begun = time.monotonic()
    film(live, 60)
    assert time.monotonic() - begun < promised(9.0)
    # It reads again, and its film has no gap.
    rest = film(stuck, 30)[1:]
    assert all(after == before + duration
               for (before, duration), (after, _) in zip(times_of(rest), times_of(rest)[1:]))


def comes_evenly(live):
    """Pictures are sent as they come, not in heaps."""
    times = []
    while len(times) < 30:
        if isinstance(live.recv(), bytes):
            times.append(time.monotonic())
    return sum(after - before < 0.003 for before, after in zip(times, times[1:])) < 20


def test_ten_browsers_and_one_of_them_stuck(web):
    lives = [web.live() for _ in range(10)]
    lives[0].sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)  # and it never reads
    for live in lives[1:]:
        film(live, 1)
    seen = []
    threads = [threading.Thread(target=lambda live=live: seen.append(len(film(live, 60, 60.0))))
               for live in lives[1:]]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert seen == [61] * 9
    for live in lives[1:4]:
        wait_until(lambda live=live: comes_evenly(live), "one picture after the other", 60.0)
    assert web.is_sanitized() or web.memory() < 32 << 20


class LossyPath(threading.Thread):
    """A network to the daemon that loses every twentieth packet on the way back and doubles others.

    Its address is not the one that the board's own programs send from.
    """

    def __init__(self, board):
        super().__init__()
        self.outer = board.socket(bind=("127.0.0.2", 7252), timeout=0.1)
        self.inner = board.socket(timeout=0.1)
        self.client, self.passed, self.lost, self.is_over = None, 0, 0, threading.Event()

    def run(self):
        while not self.is_over.is_set():
            for ready in select.select([self.outer, self.inner], [], [], 0.1)[0]:
                data, sender = ready.recvfrom(65536)
                if ready is self.outer:
                    self.client = sender
                    self.inner.sendto(data, ("127.0.0.1", 5252))
                elif (self.passed + self.lost) % 20 == 19:
                    self.lost += 1
                else:
                    self.passed += 1
                    for _ in range(2 if self.passed % 20 == 9 else 1):
                        self.outer.sendto(data, self.client)


@pytest.fixture
def lossy_path(stage):
    path = LossyPath(stage.board)
    path.start()
    yield path
    path.is_over.set()
    path.join()


def test_after_a_loss_no_picture_is_damaged(stage, lossy_path, tmp_path):
    web = Web(stage.board, tmp_path, "--board", "127.0.0.2:7252", listen="127.0.0.1:0").wait_ready()
    live = web.live()
    header, *pictures = film(live, 30, 60.0)
    times = times_of(pictures)
    assert all(after == before + duration
               for (before, duration), (after, _) in zip(times, times[1:]))
    seen = probe(header + b"".join(pictures), "-err_detect", "explode", "-count_frames",
                 "-show_entries", "stream=nb_read_frames", "-of", "json")
    assert seen.stderr == b"" and json.loads(seen.stdout)["streams"][0]["nb_read_frames"] == "30"
    assert next_text(live, "board", lambda board: board["lost"] > 5)
    assert lossy_path.lost > 5


def test_the_board_in_words(web):
    board = next_text(web.live(), "board", lambda message: message["picture_problem"] == "")
    assert board["present"] and board["address"] == "127.0.0.1:5252"
    assert board["status"]["video"] is True and ["Sources", "telemetry, video"] in board["words"]
    assert board["streams"]["video"]["packets"] > 0


# Each of these has a board of its own: something is missing on it.

@pytest.fixture
def serve(board, tmp_path):
    """serve(option, ...): beacon-web on a board of its own."""

    def run(*options, **listen):
        return Web(board, tmp_path, *options, **listen)

    return run


def test_what_is_missing_is_said(board, start, serve, make_producer):
    web = serve().wait_ready()
    live = web.live()

    def says(text):
        return next_text(live, "board", lambda message: text in message["picture_problem"])

    says("No daemon runs at 127.0.0.1:5252.")
    daemon = start("recording_place=2\n")
    says("No camera's program runs on the board.")
    data = board.socket()
    data.sendto(b"I am here", ("127.0.0.1", 5000))
    says("The camera's program sends no video.")
    producer = make_producer()
    for number in range(10):
        producer.publish(b"\0\0\0\1\x41" + bytes([number]) * 100)
    says("Waiting for the camera's next key picture.")
    daemon.kill()
    says("The board has been silent for")


# 1280x720, frame numbers of 4 bits; the picture's number is in its slice.
PARAMETER_SETS = (b"\0\0\0\1\x67\x4d\x40\x1f\xe8\x80\x28\x02\xdc\x80"
                  b"\0\0\0\1\x68\xee\x3c\x80")
GROUP = 10


def coded_picture(number, size=10000):
    in_group = number % GROUP
    head = (b"\0\0\0\1\x61" if in_group else PARAMETER_SETS + b"\0\0\0\1\x65") + bytes(
        [0xe0 | in_group << 1])
    return head + f"<{number}>".encode() + b"x" * size


def next_picture_number(live):
    while True:
        message = live.recv()
        if isinstance(message, bytes) and message[4:8] == b"moof":
            return int(re.search(rb"<(\d+)>", message)[1])


def test_a_browser_that_reads_again_sees_no_old_pictures(start, serve, make_producer, board):
    """What the system holds for it is little, whatever the sizes of its buffers are."""
    start("recording_place=2\n")
    web = serve().wait_ready()
    producer = make_producer()
    connection = board.socket(socket.SOCK_STREAM, timeout=20.0)
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    connection.connect((web.host, web.port))
    stuck, live = web.live(connection=connection), web.live()
    next_text(live, "board", lambda board: board["present"])
    # Few: the console takes who does not answer for 30 s as gone.
    last = 12 * GROUP
    for number in range(last + 1):
        producer.publish(coded_picture(number))
        assert next_picture_number(live) == number
    seen = []
    while not seen or seen[-1] < last:
        seen.append(next_picture_number(stuck))
    old = [number for number in seen if number < last - GROUP]
    assert old == list(range(len(old))) and len(old) < 40


def coded_groups(sets_number):
    """An encoder's parameter sets, and its groups of pictures, each beginning with a key picture."""
    made = units(encode(["-preset", "ultrafast", "-g", "5", "-x264-params",
                         f"slices=1:sps-id={sets_number}"]))
    groups = []
    for unit in made:
        if unit_type(unit) == 5:
            groups.append([])
        if unit_type(unit) in (1, 5):
            groups[-1].append(unit)
    return [unit for unit in made if unit_type(unit) in (7, 8)][:2], groups


def pieces_to_next_picture(live):
    pieces = []
    while not pieces or pieces[-1][4:8] != b"moof":
        message = live.recv()
        if isinstance(message, bytes):
            pieces.append(message)
    return b"".join(pieces)


def test_a_stream_with_several_parameter_sets(start, serve, make_producer, board):
    """Its groups of pictures refer to the one and to the other by turns."""
    start("recording_place=2\n")
    live, producer = serve().wait_ready().live(), make_producer()
    next_text(live, "board", lambda board: board["present"])
    (sets, groups), (other_sets, other_groups) = coded_groups(0), coded_groups(3)
    all_sets = joined([sets[0], other_sets[0], sets[1], other_sets[1]])
    coded = []
    for group in itertools.chain(*zip(groups, other_groups)):
        coded += [all_sets + joined(group[:1]), *(joined([picture]) for picture in group[1:])]
    played = b""
    for picture in coded:
        producer.publish(picture)
        played += pieces_to_next_picture(live)
    wanted, _ = h264_streams.pictures(b"".join(coded))
    assert len(wanted) == len(coded) > 80
    assert h264_streams.pictures(played, container="mp4") == (wanted, b"")


def test_a_port_that_is_taken(serve, board):
    board.socket(socket.SOCK_STREAM, bind=("127.0.0.1", 8080)).listen()
    web = serve()
    assert web.process.wait(60) == 1
    assert web.err.read_text() == "beacon-web: cannot listen at 127.0.0.1:8080: Address already in use\n"


def test_ends_at_once_and_leaves_the_board(start, serve):
    daemon = start("recording_place=2\n")
    web = serve(listen="127.0.0.1:0").wait_ready()
    daemon.wait_error("New client connected")
    web.live()
    os.kill(web.pid, signal.SIGTERM)
    assert web.process.wait(10) == 0
    daemon.wait_error("Client 127.0.0.1:")


def test_command_lines_that_are_wrong():
    for options in (["--listen", "8080"], ["--listen", "host:80"], ["--board", ":5"],
                    ["--board", "x:0"], ["more"]):
        done = subprocess.run([PROGRAM, *options], capture_output=True, text=True, check=False)
        assert done.returncode == 2 and done.stderr.startswith("beacon-web: "), options
        assert done.stdout == "" and done.stderr.count("\n") == 1
