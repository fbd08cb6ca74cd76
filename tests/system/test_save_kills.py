"""A save that is killed or loses power at any of its system calls leaves complete files."""

import os
import re
import subprocess
from collections import Counter
from pathlib import Path

import pytest

from board import EMULATOR
from boot_image import BootImage
from commands import BOOT_FILE, install, update_text
from conftest import BINARY, BUILD, CONFIG, REPOSITORY, SANITIZERS, Daemon, thread_of, wait_until
from expected_file import ALL, file_text

SCRIPT = REPOSITORY / "packaging/run-time-config"
# No input may switch the recording.
SETTINGS = {**ALL, "recording_gpio": "0", "recording_btn_gpio": "0", "shot_btn_gpio": "0"}
OLD = file_text(**SETTINGS)
NEW = file_text(**{**SETTINGS, "make_preview": "0"})
COPIES = {content: content.replace(b"\r\n", b"\n") for content in (OLD, NEW)}
SLOW_MODEL = "Raspberry Pi Zero 2 W"  # starts faster, and saves like any board

pytestmark = pytest.mark.skipif(bool(EMULATOR), reason="the calls traced would be the emulator's")


def others(board):
    """The processes on the board, except its first one, which does not reap others."""
    space = os.readlink(f"/proc/{board.pid}/ns/pid")
    found = []
    for process in Path("/proc").glob("[0-9]*"):
        try:
            if (os.readlink(process / "ns/pid") == space and process.name != str(board.pid)
                    and "State:\tZ" not in (process / "status").read_text()):
                found.append(process.name)
        except OSError:
            pass  # ended meanwhile
    return found


def is_traced(thread):
    try:
        return "TracerPid:\t0\n" not in (thread / "status").read_text()
    except OSError:
        return True  # killed by its tracer already


class Victim:
    """A board whose daemon is traced, killed and started again."""

    def __init__(self, board, client, folder):
        self.board, self.client, self.folder = board, client, folder
        board.write("/sys/firmware/devicetree/base/model", SLOW_MODEL)

    def prepare(self):
        self.board.write(BOOT_FILE, OLD)
        self.board.write(CONFIG, COPIES[OLD])

    def start(self):
        """A running daemon that has carried out one command, which allocates its buffers."""
        daemon = Daemon(self.board, BINARY, self.folder / "errors", SANITIZERS)
        daemon.wait_ready()
        self._wait_carried_out(daemon, "begin")
        return daemon

    def save(self, daemon):
        """Makes it save and waits until it has saved or was killed."""
        self.client.send(update_text("make_preview", "0"))
        self._wait_carried_out(daemon, "end")

    def _wait_carried_out(self, daemon, mark):
        text = update_text(mark)
        self.client.send(text)
        line = f"config_update: {text.decode()}"
        wait_until(lambda: not daemon.alive() or line in daemon.errors(), mark, timeout=20)

    def save_until(self, *tracing):
        """A daemon saves while its command thread is traced so; was it killed?"""
        daemon = self.start()
        thread = thread_of(daemon, "commands")
        with open(self.folder / "tracer", "wb") as stream:
            tracer = subprocess.Popen(["strace", "-o", self.folder / "trace", "-p", thread.name,
                                       *tracing], stderr=stream)
        wait_until(lambda: is_traced(thread), "strace", timeout=20)
        self.save(daemon)
        was_killed = not daemon.alive()
        if not was_killed:
            daemon.kill()
        tracer.wait()
        wait_until(lambda: not others(self.board), "the commands are done")
        return was_killed

    def files(self):
        return tuple(self.board.path(name).read_bytes() for name in (BOOT_FILE, CONFIG))

    def calls_of_a_save(self):
        """The system calls of a save as (name, how often it has been called by then)."""
        self.prepare()
        assert not self.save_until()
        lines = (self.folder / "trace").read_text().splitlines()
        first = next(n for n, line in enumerate(lines) if '"Saving config\\n"' in line)
        counts, found = Counter(), []
        for number, line in enumerate(lines):
            name = re.match(r"(\w+)\(", line)
            if name is None:
                continue  # a signal
            counts[name[1]] += 1
            if number >= first and '"parse_packet json' in line:
                return found  # the next command
            if number >= first:
                found.append((name[1], counts[name[1]]))
        raise AssertionError("no end of the save")


@pytest.fixture
def victim(board, make_client, tmp_path):
    return Victim(board, make_client("127.0.0.2"), tmp_path)


@pytest.mark.parametrize("has_sed", [True, False], ids=["sed", "no sed"])
def test_killed_at_every_system_call(victim, has_sed):
    copies = [*COPIES.values()]
    if not has_sed:
        install(victim.board, "/sys/board/bin/sed", b"#!/sys/board/sh\nexit 1\n")
        copies.append(b"")  # the command's
    calls = victim.calls_of_a_save()
    assert len(calls) > 50
    for name, count in calls:
        victim.prepare()
        assert victim.save_until(f"--inject={name}:signal=KILL:when={count}"), (name, count)
        boot, copy = victim.files()
        assert boot in (OLD, NEW), f"the boot file, killed at {name} {count}"
        assert copy in copies, f"the copy, killed at {name} {count}"
        subprocess.run([SCRIPT, victim.board.path("/")], check=True)
        assert victim.files() == (boot, COPIES[boot]), f"the next start, killed at {name} {count}"


def test_the_order_in_which_a_save_flushes(victim):
    victim.prepare()
    victim.save_until("-y", "--trace=fsync,rename,close")
    trace = (victim.folder / "trace").read_text()
    steps = [r"fsync\(\d+</boot/quillorbeacon\.conf\.new>\)",
             r'rename\("/boot/quillorbeacon\.conf\.new", "/boot/quillorbeacon\.conf"\)',
             # On FAT the file's entry in the folder is flushed with the file, and the old file's
             # blocks are free when it is closed.
             r"fsync\(\d+</boot/quillorbeacon\.conf>\)",
             r"fsync\(\d+</boot>\)",
             r"close\(\d+</boot/quillorbeacon\.conf>\(deleted\)\)"]
    found = [re.search(step, trace) for step in steps]
    assert all(found), trace
    assert found == sorted(found, key=lambda match: match.start())


def test_ended_at_random_moments():
    script = subprocess.run(["/usr/bin/python3", REPOSITORY / "fuzz/kill_saves.py", "--count", "30",
                             "--jobs", "1"], env={**os.environ, "QUILLORBEACON_BUILD": str(BUILD)},
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
    assert script.returncode == 0 and b"30 runs without a finding" in script.stdout, script.stdout


@pytest.fixture(params=["ext4", "vfat"])
def image(board, request):
    return BootImage(board, request.param)


def test_power_cut_at_every_system_call(victim, image):
    calls = victim.calls_of_a_save()
    for name, count in calls:
        image.mount()
        victim.prepare()
        image.unmount()  # now it is on the disk
        image.mount()
        assert victim.save_until(f"--inject={name}:signal=KILL:when={count}"), (name, count)
        left = image.after_power_cut("quillorbeacon.conf")
        assert left in (OLD, NEW), f"the power fails at {name} {count}"
        image.mount()
        image.commit()
        later = image.after_power_cut("quillorbeacon.conf")
        assert later in ([NEW] if left == NEW else [OLD, NEW]), f"it fails after {name} {count}"
    assert left == NEW


def test_a_power_cut_while_boot_cannot_be_unmounted(victim, image):
    victim.prepare()
    image.unmount()
    image.mount()
    standing = victim.board.popen("/bin/sleep", "1000", cwd="/boot")
    wait_until(lambda: os.readlink(f"/proc/{standing.pid}/cwd") == "/boot", "a process in /boot")
    daemon = victim.start()
    victim.save(daemon)
    assert "umount: /boot: target is busy" in daemon.errors()
    assert image.after_power_cut("quillorbeacon.conf") == NEW
    assert victim.files() == (NEW, COPIES[NEW])
