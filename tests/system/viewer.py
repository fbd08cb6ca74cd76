"""A client that keeps everything it gets, and a program on the board with its output in files."""

import os
import signal
import socket
import subprocess
import threading
import time
from pathlib import Path

from board import wait_until

SO_RCVBUFFORCE = 33


class Viewer:
    """A registered client that keeps the payloads of each type."""

    def __init__(self, client):
        self.client = client
        client.socket.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 4 << 20)
        self.payloads = {kind: [] for kind in range(5)}
        self.stopped = threading.Event()
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def run(self):
        registration_due = 0.0
        while not self.stopped.is_set():
            if time.monotonic() > registration_due:
                self.client.register()
                registration_due = time.monotonic() + 2.0
            try:
                kind, _, payload = self.client.receive_any(0.1)
            except TimeoutError:
                continue
            self.payloads[kind].append(payload)

    def video(self):
        return b"".join(self.payloads[1])

    def wait_video(self, size):
        wait_until(lambda: len(self.video()) >= size, f"{size} bytes of video", 20.0)
        return self.video()

    def has(self, text):
        return any(text in payload for payload in self.payloads[0])

    def close(self):
        self.stopped.set()
        self.thread.join()


class Program:
    """A program on a board, with its output in the files `name`-out and `name`-err of `folder`."""

    def __init__(self, board, folder, program, *options, name=None, **started):
        name = name or Path(program).name
        self.name, self.out, self.err = name, folder / f"{name}-out", folder / f"{name}-err"
        with open(self.out, "wb") as out, open(self.err, "wb") as err:
            self.process = board.popen(
                program, *options,
                **{"stdin": subprocess.DEVNULL, "stdout": out, "stderr": err, **started})

    @property
    def pid(self):
        children = Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children")
        return int(wait_until(lambda: children.read_text().split(), self.name)[0])

    def complains(self, text, count=1, timeout=15.0):
        wait_until(lambda: self.err.read_text().count(text) >= count, f"{text!r} on stderr",
                   timeout)

    def end(self, number=signal.SIGTERM):
        """Stops it; returns the exit status."""
        os.kill(self.pid, number)
        return self.process.wait(60)
