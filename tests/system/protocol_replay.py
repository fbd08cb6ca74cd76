"""Plays the examples of a protocol document against the daemon on a board."""

import math
import mmap
import re
import socket
import threading
import time

from commands import BOOT_FILE, SAVE, log_lines, parse_settings
from conftest import Client, Producer, is_status, wait_until
from expected_file import file_text
from protocol_text import DocumentError, text_part

TIMEOUT = 20.0
CLIENTS = {"client": "127.0.0.2", "second": "127.0.0.3"}
SOURCE_PORTS = {"data": 5000, "video": 5001, "audio": 5003}
LISTENERS = {"display": ("127.0.0.1", 5253), "notes": ("127.0.0.1", 5255),
             "restream": ("127.0.0.9", 5600)}
KEEP_ALIVE = b'!{"cmd":"set","name":"movement",'
NO_ANSWER = b'{"cmd":"config_answer",}'
SIGNALS = {"-6": "SIGABRT"}
# Prints the output for its arguments, or the default output.
STAND_IN = """#!/sys/board/sh
name=${0##*/}
printf '%s\\n' "$name${*:+ $*}" >> /sys/board/log
for file in "/sys/board/out/$name $*" "/sys/board/out/$name"; do
    [ ! -e "$file" ] || { cat "$file"; break; }
done
# The camera tool goes on until it is stopped.
[ "$name" != raspivid ] || exec sleep 1000
"""


def offset_of(text):
    """A sum of products: "24+2*300018+9"."""
    if not re.fullmatch(r"\d+([+*]\d+)*", text):
        raise DocumentError(f"no offset: {text!r}")
    return sum(math.prod(map(int, product.split("*"))) for product in text.split("+"))


def fits(told, line):
    """Does the line match the document? There "..." stands for any characters."""
    return re.fullmatch(text_part(told, told).pattern, line.encode()) is not None


class Keeper(threading.Thread):
    """Writes the current time to shared memory repeatedly, as a reader process does."""

    def __init__(self, memory, at):
        super().__init__(daemon=True)
        self.memory, self.at = memory, at
        self.stopped = threading.Event()
        self.write()
        self.start()

    def write(self):
        now = time.clock_gettime_ns(time.CLOCK_REALTIME) // 1000000 % 2**32
        self.memory[self.at:self.at + 4] = now.to_bytes(4, "little")

    def run(self):
        while not self.stopped.wait(0.02):
            self.write()

    def stop(self):
        self.stopped.set()
        self.join()


class Peer:
    """A UDP program on the board, and what it has received but not yet checked."""

    def __init__(self, opened):
        self.socket = opened
        self.waiting = []

    def drain(self):
        self.waiting.clear()
        self.socket.settimeout(0)
        try:
            while True:
                self.socket.recv(65536)
        except BlockingIOError:
            pass

    def receive(self, end):
        if self.waiting:
            return self.waiting.pop(0)
        self.socket.settimeout(max(end - time.monotonic(), 0.001))
        return self.socket.recv(65536)


class Stage:
    """A daemon on a board set up as the document's "board" block says, and its surroundings."""

    def __init__(self, board, start, steps):
        self.board = board
        settings = []
        for step in steps:
            if step.party == "setting":
                settings.append(step.text)
            else:
                getattr(self, f"_send_{step.party}")(step)
        self.first_settings = parse_settings(file_text())
        self.first_settings.update(line.split("=", 1) for line in settings)
        self.memories, self.keepers, self.producer, self.tcp = {}, [], None, None
        self.peers = {name: Peer(board.socket(bind=address))
                      for name, address in LISTENERS.items()}
        self.clients = {name: Client(board, host) for name, host in CLIENTS.items()}
        self.peers.update((name, Peer(client.socket)) for name, client in self.clients.items())
        self.peers.update((name, Peer(board.socket(bind=("127.0.0.1", 0))))
                          for name in SOURCE_PORTS)
        self.daemon = start("".join(line + "\n" for line in settings))

    # A block.

    def play(self, block):
        self.sync_all()
        for peer in self.peers.values():
            peer.drain()
        self.commands_seen = len(self.commands_run(SAVE[0]))
        self.errors_at = len(self.daemon.errors())
        before = self.saved()
        told = [step.text for step in block.steps if step.party == "setting"]
        try:
            for step in block.steps:
                self.play_step(step)
            if self.daemon.alive():
                self.finish_block(before, told)
        except AssertionError as error:
            raise AssertionError(f"in the example of {block.where}: {error}") from error
        finally:
            for keeper in self.keepers:
                keeper.stop()
            self.keepers.clear()

    def finish_block(self, before, told):
        """Checks that nothing happened except what the example shows."""
        self.sync_all()
        for name in CLIENTS:
            # A camera tool that is slow to print may be started again.
            also = [packet for packet in self.peers[name].waiting if packet[:2] != b"R\3"]
            assert not also, f"{name} also got {also}"
        commands = self.commands_run()[self.commands_seen:]
        assert [c for c in commands if not c.startswith("raspivid ")] == [], "further commands"
        saved = self.saved()
        changes = [f"{key}={value}" for key, value in saved.items() if before[key] != value]
        for line in told:
            [found] = [c for c in changes if fits(line, c)] or ["nothing"]
            assert found != "nothing", f"saved: {changes}, not {line}"
            changes.remove(found)
        assert changes == [], "what else was saved"

    def play_step(self, step):
        try:
            if step.sends:
                getattr(self, f"_send_{step.party}", self._send_datagram)(step)
            elif step.nothing and step.party != "file":
                self.sync(step.party)
                assert not self.peers[step.party].waiting, self.peers[step.party].waiting
            else:
                getattr(self, f"_expect_{step.party}", self._expect_datagram)(step)
        except (AssertionError, TimeoutError) as error:
            raise AssertionError(f"{step.where}: {error}") from error

    # Datagrams.

    def sync_all(self):
        if self.daemon.alive():
            for name in CLIENTS:
                self.sync(name)

    def sync(self, name):
        """Waits until what this client sent has been handled; keeps what arrived meanwhile."""
        kept = self.peers[name].waiting
        self.clients[name].send(b'{"cmd":"config_request","param":"no section"}')
        while True:
            datagram, _ = self._receive(self.peers[name].socket)
            if datagram[12:] == NO_ANSWER:
                return
            if not is_status((datagram[1], 0, datagram[12:])):
                kept.append(datagram)

    @staticmethod
    def _receive(opened):
        opened.settimeout(TIMEOUT)
        return opened.recvfrom(65536)

    def _send_datagram(self, step):
        data = step.literal
        if step.header is not None:
            data = (b"R" + bytes([step.header]) + len(data).to_bytes(2, "little")
                    + b"\0\0\0\0\1\0\0\0" + data)
        port = SOURCE_PORTS.get(step.party, 5252)
        self.peers[step.party].socket.sendto(data, ("127.0.0.1", port))
        if step.party in CLIENTS and data[12:13] in (b"\2", b"\3"):
            self.sync(step.party)  # others send on their own sockets

    def _expect_datagram(self, step):
        peer = self.peers[step.party]
        pattern = step.pattern
        end = time.monotonic() + TIMEOUT
        last = "nothing"
        while time.monotonic() < end:
            try:
                datagram = peer.receive(end)
            except TimeoutError:
                break
            payload = datagram if step.header is None else datagram[12:]
            if self._fits_header(step, datagram) and re.fullmatch(pattern, payload):
                return
            last = datagram
            assert self._is_background(step, datagram), f"{step.party} got {datagram!r}"
        raise AssertionError(f"{step.party} got {last!r} last")

    @staticmethod
    def _is_background(step, datagram):
        if step.party == "data":
            return datagram.startswith(KEEP_ALIVE)
        return datagram[:2] == b"R\0" and is_status((0, 0, datagram[12:]))

    @staticmethod
    def _fits_header(step, datagram):
        return step.header is None or (
            datagram[:2] == b"R" + bytes([step.header]) and datagram[8:12] == b"\1\0\0\0"
            and int.from_bytes(datagram[2:4], "little") == len(datagram) - 12)

    def _send_tcp(self, step):
        if self.tcp is None:
            self.tcp = self.board.socket(socket.SOCK_STREAM, timeout=TIMEOUT)
            self.tcp.connect(("127.0.0.1", 5252))
            self.daemon.wait_error("TCP server: Client connected with ip address: ")
        self.tcp.sendall(step.literal)

    def _expect_tcp(self, step):
        wanted, received = sum(part.size for part in step.parts), b""
        while len(received) < wanted:
            received += self.tcp.recv(wanted - len(received))
        assert re.fullmatch(step.pattern, received), f"tcp got {received!r}"

    # Shared memory and files.

    def memory(self, name):
        if name not in self.memories:
            path = self.board.path(f"/dev/shm/{name}")
            wait_until(lambda: path.exists() and path.stat().st_size > 0, name)
            with open(path, "r+b") as file:
                self.memories[name] = mmap.mmap(file.fileno(), 0)
        return self.memories[name]

    def _send_memory(self, step):
        memory, at = self.memory(step.arguments[0]), offset_of(step.arguments[1])
        if step.is_now:
            self.keepers.append(Keeper(memory, at))
            return
        memory[at:at + len(step.literal)] = step.literal

    def _expect_memory(self, step):
        memory, at = self.memory(step.arguments[0]), offset_of(step.arguments[1])
        size = sum(part.size for part in step.parts)
        self._poll(lambda: memory[at:at + size], step)

    @staticmethod
    def _poll(read, step):
        try:
            wait_until(lambda: re.fullmatch(step.pattern, read()), "", TIMEOUT)
        except AssertionError:
            raise AssertionError(f"found {read()!r}") from None

    def _send_frame(self, step):
        if self.producer is None:
            self.producer = Producer(self.board)
        self.producer.publish(step.literal)

    def _send_file(self, step):
        self.board.write(step.arguments[0], step.literal)

    def _expect_file(self, step):
        path = self.board.path(step.arguments[0])
        if step.nothing:
            wait_until(lambda: not path.exists(), f"no {step.arguments[0]}", TIMEOUT)
            return
        self._poll(lambda: path.read_bytes() if path.exists() else b"no file", step)

    def _send_program(self, step):
        name = step.arguments[0]
        tool = self.board.path(f"/sys/board/bin/{name}")
        if tool.is_symlink():
            tool.unlink()
            self.board.write(f"/sys/board/bin/{name}", STAND_IN)
            tool.chmod(0o755)
        self.board.write("/sys/board/out/" + " ".join(step.arguments), step.literal)

    # What the daemon does to the board.

    def commands_run(self, expected=None):
        """The commands so far, without those of each save; a save that has only begun is left out
        as well, unless its first command is expected for itself."""
        lines = [line.removeprefix("sh -c ") for line in log_lines(self.board)
                 if line.startswith("sh -c ")]
        told = []
        while lines:
            if lines[:4] == SAVE:
                del lines[:4]
            elif lines == SAVE[:len(lines)] and lines[0] != expected:
                break
            else:
                told.append(lines.pop(0))
        return told

    def _expect_command(self, expected):
        run = wait_until(lambda: self.commands_run(expected)[self.commands_seen:],
                         f"run: {expected}", TIMEOUT)
        assert run[0] == expected, f"ran {run[0]!r}"
        self.commands_seen += 1

    def _expect_shell(self, step):
        self._expect_command(step.text)

    def _expect_stops(self, step):
        self._expect_command(f"pidof {step.text}")
        self.expect_error(f"can't kill {step.text} (PID not found)")

    def _expect_signals(self, step):
        self._expect_command(f"pidof {step.text}")
        self.expect_error(f"can't send signal 10 to process {step.text} (PID not found)")

    def expect_error(self, line):
        pattern = re.compile("^" + text_part(line, line).pattern.decode() + "$", re.MULTILINE)

        def find():
            return pattern.search(self.daemon.errors(), self.errors_at)

        self.errors_at = wait_until(find, f"on standard error: {line}", TIMEOUT).end()

    def _expect_error(self, step):
        self.expect_error(step.text)

    def saved(self):
        path = self.board.path(BOOT_FILE)
        return parse_settings(path.read_bytes()) if path.exists() else self.first_settings

    def _send_setting(self, step):
        raise DocumentError(f"{step.where}: only a board block gives settings")

    def _expect_setting(self, step):
        path = self.board.path(BOOT_FILE)
        wait_until(lambda: path.exists()
                   and any(fits(step.text, line) for line in path.read_text().splitlines()),
                   f"saved: {step.text}", TIMEOUT)

    def _expect_exit(self, step):
        status = str(self.daemon.wait_exit(TIMEOUT))
        assert SIGNALS.get(status, status) == step.text, f"ended with {status}"
