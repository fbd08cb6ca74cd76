"""The packaged default configuration, and the script that makes the run-time copy from the board's."""

import subprocess

import pytest

from commands import BOOT_FILE, Console
from conftest import CONFIG, REPOSITORY

SCRIPT = REPOSITORY / "packaging/run-time-config"
DEFAULT = REPOSITORY / "packaging/quillorbeacon.conf"
DEFAULT_FILE = "/usr/share/quillorbeacon/quillorbeacon.conf"


class Root:
    """A folder that stands for a board's root, with the packaged default in it."""

    def __init__(self, folder):
        self.folder = folder
        self.write(DEFAULT_FILE, DEFAULT.read_bytes())

    def path(self, inside):
        return self.folder / inside.lstrip("/")

    def write(self, inside, content):
        self.path(inside).parent.mkdir(parents=True, exist_ok=True)
        self.path(inside).write_bytes(content)

    def make_copy(self):
        """Runs the script; its exit status, and the copy (None: there is none)."""
        status = subprocess.run([SCRIPT, self.folder], stderr=subprocess.DEVNULL).returncode
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
    assert root.make_copy() == (0, DEFAULT.read_bytes().replace(b"\r\n", b"\n"))


# Killed while it saved: the file is cut to nothing, the partition is not mounted, or (after a loss
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
    assert root.make_copy() == (0, DEFAULT.read_bytes().replace(b"\r\n", b"\n"))


def test_a_copy_that_cannot_be_made_leaves_the_one_of_before(root):
    root.write(BOOT_FILE, b"fs_rw=0\r\n")
    root.write(CONFIG, b"fs_rw=1\n")
    # A full disk, as the script meets it: what it writes first cannot be written.
    root.path(CONFIG + ".new").symlink_to("/dev/full")
    status, copy = root.make_copy()
    assert status != 0 and copy == b"fs_rw=1\n"


def test_a_reader_never_sees_a_part_of_a_copy(root):
    old, new = (b"fs_rw=%d\r\n" % n + b"#" * 200000 + b"\r\n" for n in (0, 1))
    root.write(CONFIG, old)
    with open(root.path(CONFIG), "rb") as reader:
        root.write(BOOT_FILE, new)
        assert root.make_copy() == (0, new.replace(b"\r\n", b"\n"))
        assert reader.read() == old  # the old file as a whole: it was replaced, not overwritten
