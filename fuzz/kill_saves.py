#!/usr/bin/env python3
"""Ends the daemon at random moments of its saves, and looks at both settings files.

    fuzz/kill_saves.py [--count N] [--jobs N] [--seed N]

In each of N rounds (10,000 unless given) clients change a setting once or more. A save begins, and a
random part of its usual time later the daemon gets a SIGKILL or a SIGTERM, is killed together with
the commands that it runs, or is asked to restart. The file in /boot must then be whole and hold one
of the values sent, packaging/run-time-config must make the run-time copy from it, and the next daemon
starts with that. Needs root and a built daemon: $QUILLORBEACON_BUILD, or build/release. A thousand
rounds take a minute or two. The seed that is printed repeats the random choices, though not the
daemon's timing.
"""

import argparse
import json
import os
import random
import re
import signal
import subprocess
import sys
import tempfile
import time
from collections import Counter
from concurrent.futures import ProcessPoolExecutor
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(REPOSITORY / "sandbox"))
sys.dont_write_bytecode = True

from board import Board, Daemon, require_root, wait_until  # noqa: E402

BUILD = Path(os.environ.get("QUILLORBEACON_BUILD", REPOSITORY / "build/release")).resolve()
SCRIPT = REPOSITORY / "packaging/run-time-config"
DEFAULT = REPOSITORY / "packaging/quillorbeacon.conf"
BOOT_FILE = "/boot/quillorbeacon.conf"
CONFIG = "/run/quillorbeacon/config.conf"
# The board that starts fastest; it saves as any other.
MODEL = "Raspberry Pi Zero 2 W"
ROUNDS_OF_A_BOARD = 100  # its first process buries none of the others
COPYING = "sh -c cat " + BOOT_FILE


class Finding(Exception):
    """Settings were lost."""


class Target:
    """A board, its settings, and what they may be after the next end of the daemon."""

    def __init__(self, folder, choice):
        self.board = Board(BUILD)
        self.folder, self.choice = folder, choice
        self.client = self.board.socket(bind=("127.0.0.2", 0))
        self.source = self.board.socket(bind=("127.0.0.50", 0))
        self.board.write("/sys/firmware/devicetree/base/model", MODEL)
        # Long enough for several pages, and nothing that an empty file would have.
        lists = b"[" + b'{"ch":1,"min":172,"max":1811},' * 250 + b"]"
        self.settings = (DEFAULT.read_bytes().replace(b"rc1_channels=", b"rc1_channels=" + lists)
                         .replace(b"eth_static_mask=", b"eth_static_mask=255.255.0.0")
                         .replace(b"wifi_static_mask=", b"wifi_static_mask=255.255.0.0"))
        self.value = 0
        self.possible = {0}
        self.board.write(BOOT_FILE, self.content(0))
        self.board.write(CONFIG, self.copy(0))

    def content(self, value):
        return self.settings.replace(b"osd_borders=0", b"osd_borders=%d" % value)

    def copy(self, value):
        return self.content(value).replace(b"\r\n", b"\n")

    def start(self):
        self.board.write("/sys/board/log", "")
        self.daemon = Daemon(self.board, BUILD / "quillorbeacon", self.folder / "errors")
        self.daemon.wait_ready()
        self.pid = self.daemon.pid

    def send(self, sender, command):
        header = b"R" + bytes(11) if sender is self.client else b""
        port = 5252 if sender is self.client else 5000
        sender.sendto(header + json.dumps(command).encode(), ("127.0.0.1", port))

    def change(self):
        """Has a new value saved, by one thread or another of the daemon."""
        self.value += 1
        self.possible.add(self.value)
        sender = self.choice.choice([self.client, self.source])
        self.send(sender, {"cmd": "updateconfig", "param": "osd", "value": "borders",
                           "value2": str(self.value)})

    def wait_save(self):
        wait_until(lambda: "Saving config\n" in self.daemon.errors(), "a save", interval=0.0005)

    def time_of_a_save(self):
        """How long a save takes that nobody disturbs; 5 ms when it is seen too late."""
        self.change()
        self.wait_save()
        begin = time.monotonic()
        wait_until(lambda: self.board.path(CONFIG).read_bytes() == self.copy(self.value),
                   "the save's end", interval=0.0005)
        return max(time.monotonic() - begin, 0.005)

    def processes(self):
        """The processes that run on the board, but for the one that holds it."""
        space = os.readlink(f"/proc/{self.board.pid}/ns/pid")
        found = []
        for process in Path("/proc").glob("[0-9]*"):
            try:
                if (os.readlink(process / "ns/pid") == space
                        and int(process.name) != self.board.pid
                        and "State:\tZ" not in (process / "status").read_text()):
                    found.append(int(process.name))
            except OSError:
                pass  # ended meanwhile
        return found

    def end(self, how):
        """Ends the daemon, and waits until nothing runs on the board."""
        if how == "restart":
            self.send(self.source, {"cmd": "restart"})
        else:
            os.kill(self.pid, signal.SIGTERM if how == "term" else signal.SIGKILL)
        if how == "group":
            for process in self.processes():
                try:
                    os.kill(process, signal.SIGKILL)
                except ProcessLookupError:
                    pass
        self.daemon.wait_exit(20)
        wait_until(lambda: not self.processes(), "the commands' end")

    def was_saving(self):
        """Was a save begun, and its last command not yet run, when the daemon ended?"""
        log = self.board.path("/sys/board/log").read_text(errors="replace")
        return self.daemon.errors().count("Saving config\n") > log.count(COPYING)

    def check(self, how):
        boot = self.board.path(BOOT_FILE).read_bytes()
        if boot not in {self.content(value) for value in self.possible}:
            raise Finding(f"after {how}: {BOOT_FILE} has {len(boot)} bytes: {boot[-200:]!r}")
        before = self.board.path(CONFIG).read_bytes()
        if how != "group" and before not in {self.copy(value) for value in self.possible}:
            raise Finding(f"after {how}: {CONFIG} has {len(before)} bytes: {before[-200:]!r}")
        script = subprocess.run([SCRIPT, self.board.path("/")], stderr=subprocess.PIPE, check=False)
        copy = self.board.path(CONFIG).read_bytes()
        if script.returncode != 0 or copy != boot.replace(b"\r\n", b"\n"):
            raise Finding(f"after {how}: run-time-config ended with {script.returncode} and left "
                          f"{len(copy)} bytes: {copy[-200:]!r}; {script.stderr!r}")
        (value,) = re.findall(rb"^osd_borders=(\d+)$", copy, re.MULTILINE)
        self.possible = {int(value)}


def run_rounds(count, seed):
    """Runs that many rounds on one board; how many of each kind there were."""
    choice = random.Random(seed)
    done = Counter()
    with tempfile.TemporaryDirectory() as folder:
        target = Target(Path(folder), choice)
        with target.board:
            target.start()
            duration = target.time_of_a_save()
            target.end("kill")
            target.check("kill")
            for _ in range(count):
                how = choice.choice(["kill", "term", "group", "restart"])
                saves = choice.choice([1, 1, 2, 3])
                target.start()
                for _ in range(saves):
                    target.change()
                target.wait_save()
                # The square: most of the time goes to waiting for commands.
                time.sleep(duration * saves * choice.random() ** 2)
                target.end(how)
                done[how] += 1
                done["in a save"] += target.was_saving()
                target.check(how)
    return done


def main():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--count", type=int, default=10000, metavar="N",
                        help="rounds (%(default)s)")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), metavar="N",
                        help="boards at a time (%(default)s, as many as processors)")
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 30), metavar="N")
    options = parser.parse_args()
    require_root()
    counts = [ROUNDS_OF_A_BOARD] * (options.count // ROUNDS_OF_A_BOARD)
    counts += [options.count % ROUNDS_OF_A_BOARD] * (options.count % ROUNDS_OF_A_BOARD > 0)
    seeds = range(options.seed, options.seed + len(counts))
    total = Counter()
    print(f"seed {options.seed}", flush=True)
    with ProcessPoolExecutor(options.jobs) as pool:
        try:
            for done in pool.map(run_rounds, counts, seeds):
                total += done
        except Finding as finding:
            pool.shutdown(cancel_futures=True)
            sys.exit(f"kills: a finding: {finding}")
    saving = total.pop("in a save")
    print(f"kills: {sum(total.values())} runs without a finding, {saving} in a save: "
          + ", ".join(f"{number} by {how}" for how, number in sorted(total.items())))


if __name__ == "__main__":
    main()
