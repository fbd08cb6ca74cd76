"""The daemon's command line: --help and --version touch nothing, anything else starts it."""

import re
import subprocess

import pytest

from board import EMULATOR
from conftest import BINARY, BUILD, REPOSITORY, SANITIZERS, wait_until

FOLDERS = ("/run", "/boot", "/tmp", "/mnt", "/media", "/dev/shm")
VERSION = re.search(r"project\(quillorbeacon VERSION ([\d.]+)",
                    (REPOSITORY / "CMakeLists.txt").read_text())[1]


def popen(board, *arguments, **options):
    variables = {**SANITIZERS, "LD_LIBRARY_PATH": BUILD / "tests/gpio"}
    return board.popen(*EMULATOR, BINARY, *arguments, env=variables, stdin=subprocess.DEVNULL,
                       **options)


def files(board):
    return {str(path) for folder in FOLDERS for path in board.path(folder).rglob("*")}


def run_alone(board, argument):
    """Runs the daemon with one argument; returns its output after a look at the board."""
    board.path("/run/gpio").mkdir()
    before = files(board)
    ended = popen(board, argument, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    output, errors = ended.communicate(timeout=30)
    assert ended.returncode == 0 and errors == b""
    assert board.log(storage=True) == []
    assert files(board) == before  # /run/gpio/calls among them: no GPIO function was called
    return output.decode()


def test_version(board):
    assert run_alone(board, "--version") == f"quillorbeacon {VERSION}\n"


def test_help(board):
    text = run_alone(board, "--help")
    assert text.startswith("Usage: quillorbeacon [--help | --version]\n")
    for told in ("default route", "/boot", "/run/quillorbeacon/config.conf", "docs/operating.md"):
        assert told in text
    assert len(text.splitlines()) < 20


@pytest.mark.parametrize("argument", ["--help", "--version"])
def test_beside_a_running_daemon(board, daemon, argument):
    """Its sockets, its shared memory and its files are not touched."""
    ended = popen(board, argument, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    assert ended.communicate(timeout=30)[1] == b"" and ended.returncode == 0
    assert daemon.alive()
    assert board.log().count("ip route delete default") == 1


def test_output_that_cannot_be_written(board):
    with open("/dev/full", "w") as full:
        ended = popen(board, "--version", stdout=full, stderr=subprocess.PIPE)
        ended.communicate(timeout=30)
    assert ended.returncode == 1 and board.log(storage=True) == []


@pytest.mark.parametrize("arguments", [["-h"], ["--help", "--version"], ["--version", "x"], [""],
                                       ["--config=/boot/other.conf"]], ids=" ".join)
def test_anything_else_is_not_read(board, tmp_path, arguments):
    with open(tmp_path / "errors", "wb") as errors, open(tmp_path / "output", "wb") as output:
        process = popen(board, *arguments, stdout=output, stderr=errors)
    wait_until(lambda: "GPIO" in (tmp_path / "errors").read_text(errors="replace"),
               "start-up done", 20.0)
    assert process.poll() is None and (tmp_path / "output").read_bytes() == b""
    assert (tmp_path / "errors").read_text().startswith(f"Quillorbeacon-NG v.{VERSION}\n")
    assert any("route delete default" in line for line in board.log())
