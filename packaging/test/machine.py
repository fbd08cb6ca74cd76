"""A Debian machine in namespaces: systemd as its first process, packages installed with apt."""

import ctypes
import json
import os
import select
import socket
import subprocess
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
CLONE_NEWNET = 0x40000000
UNIT = "quillorbeacon.service"
SYSTEM_PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"

_libc = ctypes.CDLL(None, use_errno=True)


def wait_until(condition, what, timeout=120.0, interval=0.02):
    """Polls until condition() is true and returns its value; fails after `timeout` seconds."""
    end = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"not within {timeout} s: {what}")
        time.sleep(interval)


def _children(pid):
    try:
        return [int(p) for p in Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]
    except OSError:
        return []


class Machine:
    """Use as a context manager. `place` is an empty folder, `layers` are folders, topmost first."""

    def __init__(self, place, *layers):
        self.place = Path(place)
        self.disk = self.place / "disk"
        self.place.mkdir(parents=True)
        self._holder = subprocess.Popen(
            ["unshare", "--mount", HERE / "machine.sh", self.place,
             ":".join(str(layer) for layer in layers)], stdin=subprocess.PIPE)
        try:
            self.wait_booted()
        except BaseException:
            self.close()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        """Cuts its power and removes it."""
        self._holder.stdin.close()
        self._holder.wait()

    @property
    def init(self):
        """The process id of the machine's first process as the host sees it; 0 without one."""
        try:
            runner = int((self.place / "runner").read_text())
        except OSError:
            return 0
        return next(iter(_children(runner)), 0)

    def wait_booted(self):
        def booted():
            state = self.run("systemctl", "is-system-running", check=False)
            return state.strip() in ("running", "degraded")

        wait_until(booted, "the machine is up", interval=0.1)

    def wait_rebooted(self, old_init):
        wait_until(lambda: self.init not in (0, old_init), "the machine reboots")
        self.wait_booted()

    def path(self, inside):
        """The path of a running machine's file as seen from outside."""
        return Path(f"/proc/{self.init}/root") / str(inside).lstrip("/")

    def run(self, *command, check=True):
        """Runs a program on the machine and returns its standard output and error."""
        done = subprocess.run(
            ["nsenter", f"--target={self.init}", "--mount", "--net", "--pid", "--ipc", "--uts",
             "--cgroup", "--root", "--wdns=/", "--", "/usr/bin/env", "-i", f"PATH={SYSTEM_PATH}",
             "LANG=C.UTF-8", "DEBIAN_FRONTEND=noninteractive", *(str(c) for c in command)],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            check=False, text=True, errors="replace")
        if check and done.returncode != 0:
            raise AssertionError(f"{command}: status {done.returncode}\n{done.stdout}")
        return done.stdout

    def main_pid(self):
        """The daemon's process id; 0 while it does not run."""
        return int(self.show(UNIT, "MainPID"))

    def wait_restarted(self, old):
        """Waits until the daemon runs that comes after the one with the process id `old`."""
        wait_until(lambda: self.main_pid() not in (0, old), "another daemon")
        Client(self).wait_status()

    def kill(self, pid):
        self.run("sh", "-c", f"kill -9 {pid}")

    def show(self, unit, field):
        """A property of a unit, as text."""
        return self.run("systemctl", "show", "--value", f"--property={field}", unit).strip()

    def journal(self, unit=UNIT):
        return self.run("journalctl", "--no-pager", "--output=cat", f"--unit={unit}")

    def socket(self):
        """A UDP socket on the machine's network."""
        machines = f"/proc/{self.init}/ns/net"
        with open("/proc/self/ns/net", "rb") as home, open(machines, "rb") as net:
            _libc.setns(net.fileno(), CLONE_NEWNET)
            try:
                made = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            finally:
                _libc.setns(home.fileno(), CLONE_NEWNET)
        made.settimeout(0.2)
        return made


class Client:
    """A client of the daemon on a machine."""

    def __init__(self, machine):
        self._machine = machine
        self._socket = machine.socket()

    def send(self, payload):
        data = json.dumps(payload).encode() if isinstance(payload, dict) else payload
        self._socket.sendto(b"R" + bytes(11) + data, ("127.0.0.1", 5252))

    def send_nothing(self):
        """An empty datagram."""
        self._socket.sendto(b"", ("127.0.0.1", 5252))

    def _reply(self):
        """The payload of the next data packet; None when none arrives soon."""
        try:
            packet = self._socket.recv(65536)
        except OSError:  # nothing yet, or no daemon yet
            return None
        return packet[12:] if packet[:2] == b"R\0" else None

    def wait_status(self):
        """Registers until a status record arrives, and returns it."""
        def asked():
            self.send(b"\x02\x01")
            payload = self._reply()
            is_status = payload is not None and len(payload) == 41 and payload[0] == 4
            return payload if is_status else None

        return wait_until(asked, "a status record")

    def status(self):
        """The next status record."""
        self._socket.setblocking(False)
        while select.select([self._socket], [], [], 0)[0]:
            self._reply()
        self._socket.settimeout(0.2)
        return self.wait_status()

    def section(self, name):
        """The settings of a section, requested as clients do."""
        def asked():
            self.send({"cmd": "config_request", "param": name})
            payload = self._reply()
            return payload if payload and payload.startswith(b"{") else None

        return wait_until(asked, f"the answer about {name}").decode()
