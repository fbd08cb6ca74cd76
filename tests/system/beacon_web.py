"""What the tests of beacon-web share: the program on a board, HTTP requests and WebSockets to it."""

import http.client
import json
import re
import socket
import subprocess
import time

import websocket

from board import Daemon
from conftest import BINARY, BUILD, CONFIG, SANITIZERS, wait_until

PROGRAM = BUILD / "beacon-web"
PORT = 8080
PATIENCE = 60.0  # seconds until an answer has to come


class Reply:
    """What came back for a request."""

    def __init__(self, response):
        self.status = response.status
        self.headers = {name.lower(): value for name, value in response.getheaders()}
        self.body = response.read()

    def json(self):
        return json.loads(self.body)


class Web:
    """beacon-web on a board, with its output in files."""

    def __init__(self, board, folder, *options, listen=f"127.0.0.1:{PORT}", env=None):
        self.board = board
        self.host, _, port = listen.partition(":")
        self.out, self.err = folder / "web-out", folder / "web-err"
        with open(self.out, "wb") as out, open(self.err, "wb") as err:
            self.process = board.popen(PROGRAM, "--listen", listen, *options,
                                       env={**SANITIZERS, **(env or {})},
                                       stdin=subprocess.DEVNULL, stdout=out, stderr=err)
        self.port = int(port)

    @property
    def pid(self):
        with open(f"/proc/{self.process.pid}/task/{self.process.pid}/children",
                  encoding="ascii") as children:
            return int(children.read().split()[0])

    def memory(self):
        """Bytes that it takes."""
        with open(f"/proc/{self.pid}/status", encoding="ascii") as status:
            return int(re.search(r"VmRSS:\s*(\d+)", status.read())[1]) << 10

    def is_sanitized(self):
        """Its memory says nothing about that of the program people run."""
        with open(f"/proc/{self.pid}/maps", encoding="utf-8") as maps:
            return re.search("lib[at]san", maps.read()) is not None

    def wait_ready(self):
        said = wait_until(lambda: re.search(r"https?://[\d.]+:(\d+)/\n", self.out.read_text()),
                          "the console's address")
        self.port = int(said[1])
        return self

    @property
    def address(self):
        return f"{self.host}:{self.port}"

    def connect(self):
        made = self.board.socket(socket.SOCK_STREAM, timeout=PATIENCE)
        made.connect((self.host, self.port))
        return made

    def request(self, method, path, body=None, headers=None):
        connection = http.client.HTTPConnection(self.host, self.port)
        connection.sock = self.connect()
        connection.request(method, path, body, {"Host": self.address, **(headers or {})})
        reply = Reply(connection.getresponse())
        connection.close()
        return reply

    def get(self, path, **headers):
        return self.request("GET", path, headers=headers)

    def change(self, method, path, value, **headers):
        """A request as the console's page makes it."""
        return self.request(method, path, json.dumps(value), {
            "Origin": f"http://{self.address}", "X-Beacon": "1",
            "Content-Type": "application/json", **headers})

    def live(self, origin=None, host=None, connection=None):
        return websocket.create_connection(
            f"ws://{self.address}/live", socket=connection or self.connect(), timeout=60,
            host=host or self.address,
            origin=f"http://{self.address}" if origin is None else origin)


def next_text(live, kind, condition=lambda message: True, timeout=60.0):
    """The next text message of that type for which the condition holds."""
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        message = live.recv()
        if isinstance(message, str):
            value = json.loads(message)
            if value["type"] == kind and condition(value):
                return value
    raise AssertionError(f"no {kind} message of the kind wanted")


def film(live, pictures, timeout=60.0):
    """The film's header and so many of the fragments that come next."""
    end = time.monotonic() + timeout
    pieces = []
    while len(pieces) < pictures + 1:
        assert time.monotonic() < end, f"only {len(pieces)} pieces of film"
        message = live.recv()
        if isinstance(message, bytes):
            pieces.append(message)
    return pieces


def ready_daemon(board, folder, settings=""):
    """The daemon on a board that has somewhere to record to."""
    board.write(CONFIG, f"recording_place=2\n{settings}")
    daemon = Daemon(board, BINARY, folder / "daemon-errors", SANITIZERS)
    daemon.wait_ready()
    return daemon


def staged(made):
    """A fixture's stage; at the end nothing has complained."""
    yield made
    assert made.web.process.poll() is None and made.web.err.read_text() == ""
    assert made.daemon.alive()
