"""beaconctl: its help, its manual page and the shells' completion agree."""

import os
import pty
import re
import select
import shutil
import subprocess

import pytest

from beaconctl import COMMANDS, LIMIT, PROGRAM, Ctl
from conftest import REPOSITORY, SANITIZERS


@pytest.fixture
def ctl(board):
    return Ctl(board)


def options_of(text):
    return set(re.findall(r"--[a-z]+(?:-[a-z]+)*", text.split("Exit status")[0].split("Examples")[0]))


def test_version_and_help(ctl):
    assert ctl("--version").stdout == "beaconctl 0.8.19\n"
    done = ctl("--help")
    assert done.returncode == 0
    assert ctl("set").stdout in ctl("set", "--help").stdout.replace("\n  ", "\n") + "\n"
    listed = re.search("Subcommands:\n(.*?)\n\n", done.stdout, re.DOTALL)[1]
    assert [line.split()[0] for line in listed.splitlines()] == COMMANDS


def test_the_manual_page_has_all_commands_and_options(ctl):
    page = (REPOSITORY / "docs/man/beaconctl.1").read_text().replace("\\-", "-")
    assert '"Quillorbeacon 0.8.19"' in page.splitlines()[0]
    headings = re.findall(r"^\.SS (\w+)", page, re.MULTILINE)
    assert list(dict.fromkeys(headings)) == COMMANDS
    options = set().union(*(options_of(ctl(*words, "--help").stdout)
                            for words in [[]] + [[command] for command in COMMANDS]))
    assert options <= options_of(page), options - options_of(page)
    for key in re.findall(r"(\w+)=", page.replace("NAME =", "")):
        assert key in ctl("set").stdout or key in ("enabled", "camera_params", "list"), key


def completions(line):
    """What bash offers to complete the line, whose last word is being typed."""
    script = """
        source "$1"; shift
        COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _beaconctl
        printf '%s\\n' "${COMPREPLY[@]}"
    """
    file = REPOSITORY / "tools/beaconctl/beaconctl.bash"
    found = subprocess.run(["/bin/bash", "-c", script, "bash", str(file), *line], check=True,
                           stdout=subprocess.PIPE, text=True, cwd=REPOSITORY / "sandbox").stdout
    return found.split()


def test_completion_offers_what_there_is(ctl):
    assert completions(["beaconctl", ""]) == COMMANDS
    assert completions(["beaconctl", "get", ""]) == ctl("get").stdout.split()
    subs = {}
    for line in ctl("set").stdout.splitlines():
        param, *rest = [word for word in line.split() if word[0] not in "<["]
        subs.setdefault(param, []).extend(rest)
    assert completions(["beaconctl", "set", ""]) == list(subs)
    for param, names in subs.items():
        assert completions(["beaconctl", "set", param, ""]) == names
    for command in COMMANDS:
        offered = completions(["beaconctl", command, "-"])
        assert set(offered) == options_of(ctl(command, "--help").stdout) | {
            "--host", "--port", "--timeout"}
    assert set(completions(["beaconctl", "-"])) == options_of(ctl("--help").stdout)


def test_completion_offers_settings_and_their_values(ctl):
    program = str(PROGRAM)
    assert completions([program, "set", "recording", "recording_p"]) == ["recording_place="]
    line = [program, "set", "recording", "recording_place", "="]
    assert completions(line) == ["auto", "internal", "external"]
    assert completions([*line, "e"]) == ["external"]
    assert completions([program, "set", "display", "hflip", "display_hflip", "=", "o"]) == [
        "on", "off"]
    words = ctl("set", "--words", "make_preview").stdout.split()
    assert words == ["make_preview=on", "make_preview=off"]


@pytest.mark.skipif(not shutil.which("zsh"), reason="zsh is not installed")
def test_the_zsh_completion_can_be_read():
    file = REPOSITORY / "tools/beaconctl/_beaconctl"
    done = subprocess.run(["zsh", "-n", file], capture_output=True, text=True, check=False)
    assert (done.returncode, done.stderr) == (0, "")
    named = re.search(r"commands=\((.*?)\)", file.read_text(), re.DOTALL)[1].split()
    assert named == COMMANDS


class Zsh:
    """An interactive zsh in which Tab completes by the file in the repository."""

    def __init__(self):
        self.master, slave = pty.openpty()
        self.process = subprocess.Popen(
            ["zsh", "-f", "-i"], stdin=slave, stdout=slave, stderr=slave, start_new_session=True,
            env={"PATH": f"{PROGRAM.parent}:/usr/bin:/bin", "TERM": "dumb", "HOME": "/nonexistent",
                 **SANITIZERS})
        os.close(slave)
        self.type("PROMPT='ready> '; unset zle_bracketed_paste; unsetopt prompt_sp beep list_beep; "
                  f"fpath=({REPOSITORY}/tools/beaconctl $fpath); autoload -Uz compinit; "
                  "compinit -u -D; bindkey '^I' complete-word\n")
        self.expect("\rready> ")

    def type(self, text):
        os.write(self.master, text.encode())

    def expect(self, text):
        shown = ""
        while text not in shown:
            assert select.select([self.master], [], [], LIMIT)[0], (text, shown)
            shown += os.read(self.master, 65536).decode()
        return shown

    def check(self, line, completed):
        """Tab after `line` leaves `completed`."""
        self.type(f"{line}\t")
        self.expect(completed)
        self.type("\x15")  # the line is dropped

    def close(self):
        self.process.kill()
        self.process.wait()
        os.close(self.master)


@pytest.fixture
def zsh():
    made = Zsh()
    yield made
    made.close()


@pytest.mark.skipif(not shutil.which("zsh"), reason="zsh is not installed")
def test_zsh_completes_commands_settings_and_values(zsh):
    zsh.check("beaconctl wa", "beaconctl watch ")
    zsh.check("beaconctl get wi", "beaconctl get wifi ")
    zsh.check("beaconctl set display hfl", "beaconctl set display hflip ")
    zsh.check("beaconctl set recording recording_p", " recording_place=")
    zsh.check("beaconctl --host 10.0.0.7 set recording recording_place=ex",
              "recording_place=external ")
    zsh.check("beaconctl record --type da", "beaconctl record --type data ")
    zsh.check("beaconctl view --player mp", "beaconctl view --player mpv ")
    zsh.check("beaconctl record --ra", "beaconctl record --raw ")


def test_completion_knows_where_it_is():
    assert completions(["beaconctl", "wa"]) == ["watch"]
    assert completions(["beaconctl", "--host", "board", "g"]) == ["get", "gimbal"]
    assert completions(["beaconctl", "record", "--type", "a"]) == ["audio"]
    assert completions(["beaconctl", "record", "lo"]) == ["logging-sh"]
    assert completions(["beaconctl", "download", "/media/x", "bo"]) == ["board.py"]
    assert completions(["beaconctl", "rc", "calibrate", ""]) == ["1", "2"]
    # The shell treats "=" as a separate word.
    assert completions(["beaconctl", "--host", "=", "board", "g"]) == ["get", "gimbal"]
    assert completions(["beaconctl", "--host", "=", "10.0.0.1", "get", "wi"]) == ["wifi"]
    assert completions(["beaconctl", "record", "--type", "=", "a"]) == ["audio"]
    assert completions(["beaconctl", "record", "--type", "="]) == [
        "video", "audio", "camera", "data"]
    assert completions(["beaconctl", "record", "--type=audio", "lo"]) == ["logging-sh"]
