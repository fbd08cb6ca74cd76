"""Types docs/tour.md as it stands into the shell of script/demo --shell."""

import fcntl
import os
import re
import subprocess
import termios
from pathlib import Path

import pytest

from beaconctl import Terminal
from conftest import BINARY, REPOSITORY, wait_until
from tour_text import LEFT_OUT, PROMPT, TourError, output_pattern, parse_tour

BLOCKS = parse_tour((REPOSITORY / "docs/tour.md").read_text())
COMMANDS = [command for block in BLOCKS for command in block.commands]
DEMO = ["/usr/bin/python3", "-B", REPOSITORY / "demo/demo.py", "--binary", BINARY]
LIMIT = 60.0  # for a command to end, even on a busy machine
RIGHT, UP, CTRL_C = "\x1b[C", "\x1b[A", "\x03"
# Keys that the tour says to press and that its blocks do not show: after which text, which key.
# None: when the program has taken over the terminal.
KEYS = {
    "beaconctl watch": [(" frames/s", CTRL_C)],
    "beaconctl rc calibrate": [("moved so far: 1, 2, 5", "\n"), ("middle. Then press Enter.", "\n")],
    "beacon-sim --keys --no-video --no-audio --no-telemetry": [
        (None, RIGHT), ("ch1=1600", RIGHT), ("ch1=1700", UP), ("ch2=1600", " "),
        ("ch1=1500 ch2=1500", "1"), ("ch5=2000", CTRL_C)],
}
ESCAPE = re.compile(r"\x1b\[[0-9;?]*[a-zA-Z]")


class DemoShell(Terminal):
    """The demo's shell at its own terminal, wide enough that no line wraps."""

    def __init__(self, *options):
        super().__init__(self, options, 400, 50, {})

    @staticmethod
    def start(*options, **streams):
        return subprocess.Popen(
            [*DEMO, *options], env={"PATH": "/usr/bin:/bin", "TERM": "dumb"},
            start_new_session=True, preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0),
            **streams)

    def run(self, command):
        """Types one of the tour's commands; returns what it printed."""
        group = os.tcgetpgrp(self.master)
        self.type(command.text + "\n")
        assert self.expect(command.text + "\r\n", LIMIT) == ""
        shown = ""
        for awaited, key in KEYS.get(command.text, keys_shown(command.output)):
            if awaited is None:
                wait_until(lambda: self.is_taken_over(group), "the program at the terminal", LIMIT)
            else:
                shown += self.expect(awaited, LIMIT) + awaited
            self.type(key)
        end = "exit\r\n" if command.text == "exit" else PROMPT
        return as_seen(shown + self.expect(end, LIMIT) + end.removeprefix(PROMPT))

    def is_taken_over(self, group):
        """Does a program outside that process group read single keys?"""
        return (os.tcgetpgrp(self.master) != group
                and not termios.tcgetattr(self.master)[3] & termios.ICANON)

    def close(self):
        if self.process.poll() is None:
            self.process.terminate()
            self.process.wait(LIMIT)


def keys_shown(output):
    """The keys that the transcript shows: an answer after a question, ^C after a line."""
    lines = [line for line in output if line != LEFT_OUT]
    for number, line in enumerate(lines):
        if "[y/N] " in line:
            question, _, answer = line.partition("[y/N] ")
            yield question + "[y/N] ", answer + "\n"
        elif line == "^C":
            yield lines[number - 1], CTRL_C


def as_seen(text):
    """The lines as they finally look: escape sequences applied, overwritten text removed."""
    lines = []
    for line in ESCAPE.sub("", text).replace("\r\n", "\n").split("\n"):
        states = [state for state in line.split("\r") if state]
        lines.append(states[-1] if states else "")
    return "\n".join(lines if lines[-1] == "" else [*lines, ""])  # ^C ends no line


@pytest.fixture
def open_shell():
    """open_shell(option, ...): a DemoShell."""
    opened = []

    def make(*options):
        opened.append(DemoShell(*options))
        return opened[-1]

    yield make
    for shell in opened:
        shell.close()


def test_every_command_prints_what_the_tour_shows(open_shell):
    shell = open_shell("--shell")
    greeting = as_seen(shell.expect(PROMPT, LIMIT)).splitlines()
    assert BLOCKS[0].lines == ["$ script/demo --shell", BLOCKS[0].lines[1], *greeting,
                               PROMPT.strip()]
    for command in COMMANDS:
        shown = shell.run(command)
        if not re.fullmatch(output_pattern(command.output), shown, re.MULTILINE):
            told = "\n".join(command.output)
            pytest.fail(f"{command.where}: {command.text}\nthe tour shows:\n{told}\n"
                        f"the shell has shown:\n{shown}", pytrace=False)
    assert shell.end() == (0, "")


def test_after_the_whole_demo_a_terminal_stays_on_the_board(open_shell, tmp_path):
    shell = open_shell("--stay", "--output", tmp_path)
    shell.expect(" frames ", LIMIT)
    shell.type(CTRL_C)
    assert "byte for byte" in shell.expect(PROMPT, LIMIT)
    shell.type("beaconctl watch --once; exit\n")
    assert "Sources      telemetry, video\r\n" in shell.expect("Version", LIMIT)
    assert shell.end()[0] == 0


def run_without_terminal(commands):
    return subprocess.run([*DEMO, "--shell"], input=commands, text=True, capture_output=True,
                          timeout=LIMIT, check=False)


def test_without_a_terminal_commands_are_read_from_standard_input():
    done = run_without_terminal("beaconctl get automovement --json\nls /media\nexit 7\n")
    assert done.stdout.splitlines()[0].startswith('{"enabled":0,')
    assert done.stdout.splitlines()[1:] == ["clip.mp4"]
    assert (done.stderr, done.returncode) == ("", 7)


def test_the_shell_cannot_change_the_machine():
    files = [Path(place) / "of-the-demo" for place in (REPOSITORY, BINARY.parent, "/var/tmp")]
    done = run_without_terminal("".join(f"touch {file}\n" for file in files)
                                + "touch /tmp/x /run/x /boot/x /mnt/x /media/x /dev/shm/x\n")
    made = [file for file in files if file.exists()]
    for file in made:
        file.unlink()
    assert not made
    assert done.returncode == 0
    assert done.stderr.count("Read-only file system\n") == len(files), done.stderr


# Reading the tour.

@pytest.mark.parametrize("text", [
    "Text.\n\n```\n$ ls\n```\n",
    "**Outside the board**, text.\n\n```\nboard$ ls\n```\n",
    "**Outside the board**, text.\n\nText.\n\n```\n# ls\n```\n",
    "Text.\n\n```\nboard$ ls\n$ ls\n```\n",
    "Text.\n\n```\nls\n```\n",
    "Text.\n\n```\n```\n",
    "Text.\n\n```\nboard$ ls\n",
], ids=["no mark", "a mark too many", "mark of another paragraph", "two shells", "no prompt",
        "empty", "no end"])
def test_a_tour_that_is_not_clear_is_refused(text):
    with pytest.raises(TourError):
        parse_tour(text)


@pytest.mark.parametrize("told, shown, same", [
    ("ap_channel  40", "ap_channel  40", True),
    ("ap_channel  40", "ap_channel  41", False),
    ("clip: 7 bytes of video in 2.0 s, 3 packets, 0 lost",
     "clip: 81 bytes of video in 13.1 s, 4 packets, 0 lost", True),
    ("clip: 7 bytes of video in 2.0 s, 3 packets, 0 lost",
     "clip: 7 bytes of video in 2.0 s, 3 packets, 1 lost", False),
    ("clip: 7 bytes of video in 2.0 s, 3 packets, 0 lost, 1 gap, the longest 3.0 s",
     "clip: 9 bytes of video in 2.1 s, 4 packets, 8 lost, 2 gaps, the longest 3.1 s", True),
    ("   1   1730   1000    1500   2000   0.460          0   100%  no   pan",
     "   1      0   1000    1500   2000  -1.000          0   100%  no   pan", True),
    ("   1   1730   1000    1500   2000   0.460          0   100%  no   pan",
     "   1   1730   1000    1500   2001   0.460          0   100%  no   pan", False),
    ("a\n...\nb", "a\nb", True),
    ("a\n...\nb", "a\nc\nd\nb", True),
    ("a\n...\nb", "a\nc\nd", False),
    ("a.b", "axb", False),
])
def test_only_what_varies_may_differ(told, shown, same):
    pattern = output_pattern(told.split("\n"))
    assert bool(re.fullmatch(pattern, shown + "\n", re.MULTILINE)) == same


def test_overwritten_states_are_not_seen():
    assert as_seen("one\rtwo\x1b[K\r\nthree\r\n\r") == "two\nthree\n"
