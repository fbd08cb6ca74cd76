"""Another machine, connected to a board by a cable: a network namespace and a pair of devices.

Its end of the cable is 10.9.N.2, the board's 10.9.N.1. Needs root and, for slow cables, a kernel
with the token bucket filter.
"""

import os
import socket
import subprocess

from board import enter_network


class Machine:
    """Use as a context manager, or call close(); close it before the board."""

    def __init__(self, board, number=1):
        self.board = board
        self.address, self.board_address = f"10.9.{number}.2", f"10.9.{number}.1"
        self.device = f"cable{number}"
        self._sockets = []
        self._holder = subprocess.Popen(
            ["unshare", "--net", "--kill-child=KILL", "sh", "-c",
             "ip link set lo up; echo ready; exec cat > /dev/null"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        if self._holder.stdout.readline() != b"ready\n":
            raise RuntimeError("no network for another machine (root is needed)")
        self.pid = self._holder.pid
        self._home = os.open("/proc/self/ns/net", os.O_RDONLY | os.O_CLOEXEC)
        self._network = os.open(f"/proc/{self.pid}/ns/net", os.O_RDONLY | os.O_CLOEXEC)
        self.on_board("ip", "link", "add", self.device, "type", "veth", "peer", "name", "cable",
                      "netns", str(self.pid))
        for on_it, device, address in ((self.on_board, self.device, self.board_address),
                                       (self.on_machine, "cable", self.address)):
            on_it("ip", "address", "add", f"{address}/24", "dev", device)
            on_it("ip", "link", "set", device, "up")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        for opened in self._sockets:
            opened.close()
        self._holder.kill()
        self._holder.wait()
        self._holder.stdin.close()
        self._holder.stdout.close()
        os.close(self._home)
        os.close(self._network)

    @staticmethod
    def _on_network_of(pid, *command):
        subprocess.run(["nsenter", f"--net=/proc/{pid}/ns/net", *command], check=True)

    def on_board(self, *command):
        """Runs a program of the host on the board's network."""
        self._on_network_of(self.board.pid, *command)

    def on_machine(self, *command):
        self._on_network_of(self.pid, *command)

    def slow_down(self, rate, queue=100_000_000):
        """Limits what the board sends to it to `rate` ("1kbit"), with a long queue."""
        self.on_board("tc", "qdisc", "replace", "dev", self.device, "root", "tbf", "rate", rate,
                      "burst", "3000", "limit", str(queue))

    def speed_up(self):
        self.on_board("tc", "qdisc", "delete", "dev", self.device, "root")

    def cut(self):
        """From now on nothing from the board arrives, without any error."""
        self.on_machine("ip", "link", "set", "cable", "down")
        neighbour = ("ip", "neighbour", "replace", self.address, "lladdr", "02:00:00:00:00:01")
        self.on_board(*neighbour, "dev", self.device, "nud", "permanent")

    def socket(self, kind=socket.SOCK_DGRAM, timeout=5.0):
        """A socket on the machine's network; closed with the machine."""
        enter_network(self._network)
        try:
            made = socket.socket(socket.AF_INET, kind)
        finally:
            enter_network(self._home)
        self._sockets.append(made)
        made.settimeout(timeout)
        return made
