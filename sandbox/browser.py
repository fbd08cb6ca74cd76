"""A browser on a board: Chromium without a window, driven over WebDriver with the standard library."""

import http.client
import json
import os
import signal
import socket
import subprocess
import time
from pathlib import Path

from board import wait_until

PORT = 9515
# The page has a plain-http name, as a board has in a network: browsers allow such a page less than
# one at localhost.
NAME = "board.test"
ARGUMENTS = ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
             "--no-first-run", "--disable-background-networking", "--disable-component-update",
             "--disable-sync", "--mute-audio", f"--host-resolver-rules=MAP {NAME} 127.0.0.1",
             "--user-data-dir=/tmp/browser"]


def _children(pid):
    """The child processes of all threads of a process."""
    try:
        threads = list(Path(f"/proc/{pid}/task").iterdir())
        return [int(child) for thread in threads
                for child in (thread / "children").read_text().split()]
    except OSError:
        return []


def _family(pid):
    """A process and all that descend from it."""
    return [pid, *(each for child in _children(pid) for each in _family(child))]


class Browser:
    """One window. Use as a context manager."""

    def __init__(self, board, size=(1280, 800)):
        self.board = board
        self.driver = board.popen("/usr/bin/chromedriver", f"--port={PORT}",
                                  env={"HOME": "/tmp", "XDG_RUNTIME_DIR": "/tmp"}, cwd="/tmp",
                                  stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL)
        wait_until(self._is_ready, "chromedriver", 30.0, 0.05)
        options = {"args": [*ARGUMENTS, f"--window-size={size[0]},{size[1]}"]}
        capabilities = {"browserName": "chrome", "goog:chromeOptions": options,
                        "goog:loggingPrefs": {"browser": "ALL"}}
        made = self._send("POST", "/session", {"capabilities": {"alwaysMatch": capabilities}})
        self.session = f"/session/{made['sessionId']}"

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._send("DELETE", self.session)
        with open(f"/proc/{self.driver.pid}/task/{self.driver.pid}/children",
                  encoding="ascii") as children:
            os.kill(int(children.read().split()[0]), signal.SIGTERM)
        self.driver.wait(20)

    def _is_ready(self):
        try:
            return self._send("GET", "/status")["ready"]
        except OSError:
            return False

    def _send(self, method, path, value=None):
        connection = http.client.HTTPConnection("127.0.0.1", PORT)
        connection.sock = self.board.socket(socket.SOCK_STREAM, timeout=60.0)
        connection.sock.connect(("127.0.0.1", PORT))
        body = None if value is None else json.dumps(value)
        connection.request(method, path, body, {"Host": f"127.0.0.1:{PORT}"})
        answer = json.loads(connection.getresponse().read())["value"]
        connection.close()
        if isinstance(answer, dict) and "error" in answer:
            raise AssertionError(f"{path}: {answer['error']}: {answer['message']}")
        return answer

    def open(self, path="/"):
        self._send("POST", f"{self.session}/url", {"url": f"http://{NAME}:8080{path}"})

    def run(self, script, *arguments):
        """Runs the body of a function in the page and returns what it returns."""
        return self._send("POST", f"{self.session}/execute/sync",
                          {"script": script, "args": list(arguments)})

    def wait(self, script, what, *arguments, timeout=20.0):
        """Waits until the script returns something true."""
        return wait_until(lambda: self.run(script, *arguments), what, timeout, 0.05)

    def resize(self, width, height):
        self._send("POST", f"{self.session}/window/rect", {"width": width, "height": height})

    def sleep(self, seconds):
        """Stops all its processes for so long, as a machine does that is closed."""
        ids = [pid for child in _children(self.driver.pid) for pid in _family(child)[1:]]
        for each in ids:
            os.kill(each, signal.SIGSTOP)
        time.sleep(seconds)
        for each in ids:
            os.kill(each, signal.SIGCONT)

    def screenshot(self):
        return self._send("GET", f"{self.session}/screenshot")

    def log(self):
        """What the page's console says that is not harmless."""
        return self._send("POST", f"{self.session}/se/log", {"type": "browser"})

    def act(self, *actions):
        """Pointer and key actions, as WebDriver describes them."""
        self._send("POST", f"{self.session}/actions", {"actions": list(actions)})
