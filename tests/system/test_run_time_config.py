"""The packaged default configuration, and the script that makes the run-time copy."""

import os
import re
import resource
import subprocess
import time

import pytest

from commands import BOOT_FILE, Console
from conftest import CONFIG, REPOSITORY

SCRIPT = REPOSITORY / "packaging/run-time-config"
DEFAULT = REPOSITORY / "packaging/quillorbeacon.conf"
DEFAULT_FILE = "/usr/share/quillorbeacon/quillorbeacon.conf"
WHOLE = DEFAULT.read_bytes()
OTHER = WHOLE.replace(b"fs_rw=0", b"fs_rw=1")
CUT = OTHER[:4090]


def copy_of(content):
    return content.replace(b"\r\n", b"\n")


class Root:
    """A folder that acts as a board's root, with the packaged default in it."""

    def __init__(self, folder):
        self.folder = folder
        self.clock = time.time_ns() + 10**12
        self.write(DEFAULT_FILE, DEFAULT.read_bytes())

    def path(self, inside):
        return self.folder / inside.lstrip("/")

    def write(self, inside, content):
        self.path(inside).parent.mkdir(parents=True, exist_ok=True)
        self.path(inside).write_bytes(content)

    def write_later(self, inside, content):
        """Writes a file that is newer than all others, however soon it is written."""
        self.write(inside, content)
        self.clock += 1
        os.utime(self.path(inside), ns=(self.clock, self.clock))

    def make_copy(self):
        """Runs the script; its exit status, and the copy (None: there is none)."""
        run = subprocess.run([SCRIPT, self.folder], stderr=subprocess.PIPE, check=False,
                             timeout=60)
        status, self.errors = run.returncode, run.stderr.decode()
        assert not self.path(CONFIG + ".new").exists() and not self.path(CONFIG).is_symlink()
        return status, self.path(CONFIG).read_bytes() if self.path(CONFIG).exists() else None


@pytest.fixture
def root(tmp_path):
    return Root(tmp_path)


def test_the_packaged_default_is_what_the_daemon_writes(board, start, make_client):
    console = Console(board, start(""), make_client("127.0.0.2"))
    console.update("make_preview", "0")
    assert console.boot_file() == DEFAULT.read_bytes()


def test_carriage_returns_at_line_ends_are_removed(root):
    root.write(BOOT_FILE, b"# Board\r\n\r\nap_ssid=\"a\rb\"\r\nfs_rw=1\n")
    assert root.make_copy() == (0, b"# Board\n\nap_ssid=\"a\rb\"\nfs_rw=1\n")


def test_a_changed_board_file_replaces_the_copy(root):
    root.write(BOOT_FILE, b"fs_rw=1\r\n")
    root.make_copy()
    root.write(BOOT_FILE, b"fs_rw=0\r\n")
    assert root.make_copy() == (0, b"fs_rw=0\n")


def test_a_board_without_a_file_gets_the_default(root):
    assert root.make_copy() == (0, copy_of(WHOLE))


# Killed while it saved: the file is truncated, the partition is not mounted, or (after a loss
# of power) the file system gave the file its length but not its bytes.
@pytest.mark.parametrize("left", [b"", b"\0" * 5000, b"# Quillorbeacon NG config file\r\n", None],
                         ids=["nothing", "zeros", "comments", "no file"])
def test_a_board_file_without_settings_leaves_the_copy_of_before(root, left):
    root.write(CONFIG, b"fs_rw=1\n")
    if left is not None:
        root.write(BOOT_FILE, left)
    assert root.make_copy() == (0, b"fs_rw=1\n")


def test_an_empty_copy_does_not_count(root):
    root.write(CONFIG, b"")
    assert root.make_copy() == (0, copy_of(WHOLE))


def test_a_copy_that_cannot_be_made_leaves_the_one_of_before(root):
    root.write(CONFIG, b"fs_rw=1\n")
    root.write_later(BOOT_FILE, b"fs_rw=0\r\n")
    # A full disk: the script's first write fails.
    root.path(CONFIG + ".new").symlink_to("/dev/full")
    status, copy = root.make_copy()
    assert status != 0 and copy == b"fs_rw=1\n"


@pytest.mark.parametrize("file", [BOOT_FILE, CONFIG, CONFIG + ".new"])
def test_a_fifo_holds_nothing_up(root, file):
    root.write(CONFIG, b"fs_rw=1\n")
    root.write_later(BOOT_FILE, b"fs_rw=1\n")
    root.path(file).unlink(missing_ok=True)
    os.mkfifo(root.path(file))
    status, copy = root.make_copy()
    assert status == 0 and copy == b"fs_rw=1\n"


def test_a_reader_never_sees_a_part_of_a_copy(root):
    old, new = (b"fs_rw=%d\r\n" % n + b"#" * 200000 + b"\r\n" for n in (0, 1))
    root.write(CONFIG, old)
    with open(root.path(CONFIG), "rb") as reader:
        root.write(BOOT_FILE, new)
        assert root.make_copy() == (0, new.replace(b"\r\n", b"\n"))
        assert reader.read() == old  # the whole old file: it was replaced, not overwritten


# Complete and incomplete files.

def test_the_script_knows_the_last_key():
    keys = re.findall(rb"^([a-z0-9_]+)=", WHOLE, re.MULTILINE)
    assert f"last_key={keys[-1].decode()} ".encode() in SCRIPT.read_bytes()


# Cut anywhere up to the last line's end, or a page was never written.
PARTS = {"a page": CUT, "all but the last line": WHOLE[:WHOLE.rindex(b"zerotier_netid")],
         "all but the last value": WHOLE[:WHOLE.rindex(b"\r\n\r\n")],
         "zeros inside": OTHER[:1000] + bytes(1000) + OTHER[2000:],
         "zeros at the end": CUT + bytes(len(OTHER) - len(CUT))}


@pytest.mark.parametrize("part", PARTS.values(), ids=PARTS)
def test_a_cut_board_file_does_not_replace_a_whole_copy(root, part):
    root.write(CONFIG, copy_of(WHOLE))
    root.write_later(BOOT_FILE, part)
    assert root.make_copy() == (0, copy_of(WHOLE))
    assert "is incomplete (no zerotier_netid); keeping the settings in" in root.errors


@pytest.mark.parametrize("part", PARTS.values(), ids=PARTS)
def test_a_whole_board_file_replaces_a_cut_copy(root, part):
    root.write(BOOT_FILE, WHOLE)
    root.write_later(CONFIG, copy_of(part))
    assert root.make_copy() == (0, copy_of(WHOLE)) and root.errors == ""


@pytest.mark.parametrize("board, copy", [(WHOLE, OTHER), (CUT, CUT[:2000])], ids=["whole", "cut"])
def test_of_two_equal_ones_the_newer_is_taken(root, board, copy):
    root.write(BOOT_FILE, board)
    root.write_later(CONFIG, copy_of(copy))
    assert root.make_copy() == (0, copy_of(copy))
    assert "is older than" in root.errors
    root.write_later(BOOT_FILE, board)
    assert root.make_copy() == (0, copy_of(board))


def test_a_copy_that_the_daemon_has_made_is_not_worth_a_word(root):
    root.write(BOOT_FILE, WHOLE)
    root.write_later(CONFIG, copy_of(WHOLE))
    assert root.make_copy() == (0, copy_of(WHOLE)) and root.errors == ""


def test_a_cut_board_file_is_better_than_none(root):
    root.write(BOOT_FILE, CUT)
    assert root.make_copy() == (0, copy_of(CUT))
    assert "may be incomplete (no zerotier_netid)" in root.errors


def make_copy_with_room(root, size):
    """Like make_copy, with a limit on the size of files."""
    limit = (resource.RLIMIT_FSIZE, (size, resource.RLIM_INFINITY))
    process = subprocess.run([SCRIPT, root.folder], stderr=subprocess.DEVNULL, check=False,
                             preexec_fn=lambda: resource.setrlimit(*limit))
    return process.returncode, root.path(CONFIG)


def test_a_whole_copy_stays_where_there_is_no_room_for_the_next(root):
    root.write(CONFIG, copy_of(OTHER))
    root.write_later(BOOT_FILE, WHOLE)
    status, copy = make_copy_with_room(root, 4096)
    assert status != 0 and copy.read_bytes() == copy_of(OTHER)
    assert not root.path(CONFIG + ".new").exists()


def test_a_cut_copy_goes_where_there_is_no_room_for_a_whole_one(root):
    # The daemon would take it for the complete settings, and save it as such.
    root.write(CONFIG, copy_of(CUT))
    root.write_later(BOOT_FILE, WHOLE)
    status, copy = make_copy_with_room(root, 4096)
    assert status != 0 and not copy.exists()
    assert not root.path(CONFIG + ".new").exists()


def test_the_room_of_a_cut_copy_is_used_for_a_whole_one(root, board):
    folder = board.path("/run/quillorbeacon")
    folder.mkdir()
    board.run("/usr/bin/mount", "-t", "tmpfs", "-o", "size=8192", "memory", "/run/quillorbeacon")
    board.write(CONFIG, copy_of(CUT))
    board.write(BOOT_FILE, WHOLE)
    assert 4096 < len(copy_of(WHOLE)) <= 8192
    subprocess.run([SCRIPT, board.path("/")], check=True)
    assert board.path(CONFIG).read_bytes() == copy_of(WHOLE)


def test_what_is_written_is_flushed(root, tmp_path):
    root.write(BOOT_FILE, WHOLE)
    trace = tmp_path / "trace"
    subprocess.run(["strace", "-f", "-y", "-s", "1000", "-o", trace,
                    "--trace=fsync,rename,renameat,renameat2", SCRIPT, root.folder], check=True)
    text = trace.read_text()
    flushed, renamed, folder_flushed = (
        re.search(step, text).start() for step in
        (r"fsync\(\d+<[^>]*/config\.conf\.new>\) = 0", r"rename\w*\([^\n]*config\.conf\.new",
         r"fsync\(\d+<[^>]*/run/quillorbeacon>\) = 0"))
    assert flushed < renamed < folder_flushed


def test_a_boot_partition_at_boot_firmware_has_the_file(root, tmp_path_factory):
    """Today's system; /boot is then a plain folder."""
    partition = tmp_path_factory.mktemp("partition")
    (partition / "quillorbeacon.conf").write_bytes(OTHER)
    root.write(BOOT_FILE, WHOLE)
    (root.folder / "boot/firmware").mkdir()
    subprocess.run(["unshare", "--mount", "sh", "-c",
                    'mount --bind "$0" "$1/boot/firmware" && exec "$2" "$1"',
                    partition, root.folder, SCRIPT], check=True)
    assert root.path(CONFIG).read_bytes() == copy_of(OTHER)
