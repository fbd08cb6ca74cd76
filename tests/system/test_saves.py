"""Saves under difficulties: no space, missing tools, something else in place of the files, and a
start-up without settings."""

import os
import stat
import subprocess

import pytest

from commands import BOOT_FILE, SAVE, Console, install, parse_settings
from conftest import CONFIG, REPOSITORY
from expected_file import ALL, file_text

SCRIPT = REPOSITORY / "packaging/run-time-config"
# No input may switch the recording.
SETTINGS = {**ALL, "recording_gpio": "0", "recording_btn_gpio": "0", "shot_btn_gpio": "0"}
OLD = file_text(**SETTINGS)
NEW = file_text(**{**SETTINGS, "make_preview": "0"})
FAILURE = f"Config file {BOOT_FILE} could not be written: "
COPY_FAILURE = f"Config file {CONFIG} could not be written: "
KEPT = "No settings were loaded at start-up; the previous ones are kept in "


def copy_of(content):
    return content.replace(b"\r\n", b"\n")


@pytest.fixture
def run(board, start, make_client):
    """run(config): the daemon on this run-time copy (None: none) and the boot file OLD."""
    number = iter(range(2, 100))

    def make(config=copy_of(OLD)):
        if not os.path.lexists(board.path(BOOT_FILE)):
            board.write(BOOT_FILE, OLD)
        return Console(board, start(config), make_client(f"127.0.0.{next(number)}"))

    return make


def fill(board, folder, free=0):
    """Puts a folder on its own file system with space for that many more bytes."""
    content = {file.name: file.read_bytes() for file in board.path(folder).iterdir()}
    board.run("/usr/bin/mount", "-t", "tmpfs", "-o", "size=1000000", "memory", folder)
    for name, data in content.items():
        board.write(f"{folder}/{name}", data)
    state = os.statvfs(board.path(folder))
    used = (state.f_blocks - state.f_bfree) * state.f_frsize
    board.run("/usr/bin/mount", "-o", f"remount,size={used + free}", folder)


def make_room(board, folder):
    board.run("/usr/bin/mount", "-o", "remount,size=1000000", folder)


def names_in(board, folder):
    return sorted(entry.name for entry in board.path(folder).iterdir())


def fail(board, tool):
    install(board, f"/sys/board/bin/{tool}", b"#!/sys/board/sh\nexit 1\n")


# No space.

def test_a_full_boot_partition_keeps_its_file_and_the_daemon_the_new_settings(board, run):
    console = run()
    fill(board, "/boot", 4096)
    console.update("make_preview", "0")
    assert console.commands == SAVE[:3]
    assert console.errors == ["Saving config", FAILURE + "No space left on device"]
    assert console.boot_file() == OLD
    assert names_in(board, "/boot") == ["quillorbeacon.conf"]
    assert board.path(CONFIG).read_bytes() == copy_of(NEW)
    # A restart of the daemon does not lose them, and the next save writes them.
    console.daemon.kill()
    subprocess.run([SCRIPT, board.path("/")], check=True)
    make_room(board, "/boot")
    console = run(None)
    console.update("osd", "enabled", SETTINGS["osd_enabled"])
    assert console.errors == ["Saving config"]
    assert console.boot_file() == NEW


def test_a_full_run_folder_gets_no_part_of_a_copy(board, run):
    console = run("rc2_channels=" + "2" * 8000 + "\n")  # two pages, and four when it is saved
    fill(board, "/run/quillorbeacon")
    console.update("make_preview", "1")
    assert console.commands == SAVE
    assert [line for line in console.errors if "sed" not in line and "cat" not in line] == \
        ["Saving config", COPY_FAILURE + "No space left on device"]
    assert parse_settings(console.boot_file())["make_preview"] == "1"
    assert not board.path(CONFIG).exists() and not board.path(CONFIG + ".new").exists()
    make_room(board, "/run/quillorbeacon")
    console.update("make_preview", "0")
    assert board.path(CONFIG).read_bytes() == copy_of(console.boot_file())


def test_the_room_of_a_part_is_used_for_the_whole(board, run):
    console = run()
    # The command leaves an incomplete copy; there is space for one complete copy.
    install(board, "/sys/board/bin/sed", b"#!/sys/board/sh\nhead -c 5000\n")
    fill(board, "/run/quillorbeacon")
    console.update("make_preview", "0")
    assert console.errors == ["Saving config"]
    assert board.path(CONFIG).read_bytes() == copy_of(NEW)


def test_a_whole_copy_stays_where_there_is_no_room_for_the_next(board, run):
    console = run()
    install(board, "/sys/board/sh", b"")  # no shell: the command leaves the copy as it is
    fill(board, "/run/quillorbeacon")
    console.update("make_preview", "0")
    assert console.errors == ["Saving config", COPY_FAILURE + "No space left on device"]
    assert console.boot_file() == NEW
    assert board.path(CONFIG).read_bytes() == copy_of(OLD)


# No tool.

@pytest.mark.parametrize("tool", ["sed", "cat"])
def test_a_copy_that_its_command_does_not_make_is_made(board, run, tool):
    console = run()
    fail(board, tool)
    console.update("make_preview", "0")
    assert console.commands == SAVE and console.errors == ["Saving config"]
    assert console.boot_file() == NEW
    assert board.path(CONFIG).read_bytes() == copy_of(NEW)


def test_the_copy_of_a_boot_partition_that_is_not_mounted_again(board, run):
    console = run()
    install(board, "/sys/board/bin/umount",
            b"#!/sys/board/sh\nmv /boot/quillorbeacon.conf /tmp/\nexit 0\n")
    console.update("make_preview", "0")
    assert board.path("/tmp/quillorbeacon.conf").read_bytes() == NEW
    assert board.path(CONFIG).read_bytes() == copy_of(NEW)


# Something else in place of the file.

def test_a_boot_partition_that_stays_read_only_is_passed_over_in_silence(board, run):
    console = run()
    board.run("/usr/bin/mount", "--bind", "-o", "ro", "/boot", "/boot")
    console.update("make_preview", "0")
    assert console.commands == SAVE[:1] and console.errors == ["Saving config"]
    assert console.boot_file() == OLD and board.path(CONFIG).read_bytes() == copy_of(OLD)


@pytest.mark.parametrize("link", ["/tmp/there", "../tmp/there", "second"])
def test_a_link_is_followed(board, run, link):
    board.path("/boot/second").symlink_to("/tmp/there")
    board.path(BOOT_FILE).symlink_to(link)
    console = run()
    for value, content in (("0", NEW), ("1", OLD)):  # into nothing, and into a file
        console.update("make_preview", value)
        assert board.path("/tmp/there").read_bytes() == content
        assert not board.path("/tmp/there").is_symlink()
        assert os.readlink(board.path(BOOT_FILE)) == link
    assert names_in(board, "/boot") == ["quillorbeacon.conf", "second"]


def test_a_link_that_leads_nowhere_is_passed_over_in_silence(board, run):
    board.path(BOOT_FILE).symlink_to("quillorbeacon.conf")
    console = run()
    console.update("make_preview", "0")
    assert console.commands == SAVE[:1] and console.errors == ["Saving config"]


def test_owner_and_mode_stay(board, run):
    console = run()
    for file in (BOOT_FILE, CONFIG):
        board.path(file).chmod(0o640)
        os.chown(board.path(file), 1, 2)
    fail(board, "sed")
    console.update("make_preview", "0")
    for file in (BOOT_FILE, CONFIG):
        status = board.path(file).stat()
        assert (stat.S_IMODE(status.st_mode), status.st_uid, status.st_gid) == (0o640, 1, 2)


@pytest.mark.parametrize("kind", [stat.S_IFIFO, stat.S_IFCHR], ids=["FIFO", "device"])
def test_no_boot_file_is_opened_that_is_none(board, run, kind):
    os.mknod(board.path(BOOT_FILE), kind | 0o600, os.makedev(1, 3))
    console = run()
    console.update("make_preview", "0")
    assert console.commands == SAVE[:1]
    assert console.errors == ["Saving config", FAILURE + "not a regular file"]
    assert stat.S_IFMT(board.path(BOOT_FILE).stat().st_mode) == kind


@pytest.mark.parametrize("kind", [stat.S_IFIFO, stat.S_IFCHR], ids=["FIFO", "device"])
def test_no_copy_is_opened_that_is_none(board, run, kind):
    console = run()
    board.path(CONFIG).unlink()
    os.mknod(board.path(CONFIG), kind | 0o600, os.makedev(1, 3))
    console.update("make_preview", "0")
    assert console.commands == SAVE[:3]
    assert console.errors == ["Saving config", COPY_FAILURE + "not a regular file"]
    assert console.boot_file() == NEW
    assert stat.S_IFMT(board.path(CONFIG).stat().st_mode) == kind


def test_what_an_earlier_save_left_beside_the_file_is_in_nobodys_way(board, run):
    console = run()
    board.write("/tmp/other", "other")
    board.path(BOOT_FILE + ".new").symlink_to("/tmp/other")
    board.write(CONFIG + ".new", "left")
    console.update("make_preview", "0")
    assert console.boot_file() == NEW and board.path("/tmp/other").read_text() == "other"
    assert names_in(board, "/boot") == ["quillorbeacon.conf"]


def test_a_fifo_beside_the_file_is_in_nobodys_way(board, run):
    console = run()
    fail(board, "sed")
    for file in (BOOT_FILE, CONFIG):
        os.mkfifo(board.path(file + ".new"))
    console.update("make_preview", "0")
    assert console.boot_file() == NEW and board.path(CONFIG).read_bytes() == copy_of(NEW)
    assert names_in(board, "/boot") == ["quillorbeacon.conf"]


# A start-up without settings.

def test_a_start_without_settings_keeps_the_boot_file(board, run):
    console = run(None)
    board.path(BOOT_FILE).chmod(0o600)
    console.update("make_preview", "0")
    assert console.commands == SAVE
    assert console.errors == ["Saving config", KEPT + BOOT_FILE + ".kept"]
    kept = board.path(BOOT_FILE + ".kept")
    assert kept.read_bytes() == OLD and stat.S_IMODE(kept.stat().st_mode) == 0o600
    zeros = console.boot_file()
    assert zeros == file_text()
    # Once.
    console.update("make_preview", "1")
    assert console.errors == ["Saving config"]
    assert names_in(board, "/boot") == ["quillorbeacon.conf", "quillorbeacon.conf.kept"]
    # It also stays when the next start-up has no settings either.
    console.daemon.kill()
    board.path(CONFIG).unlink()
    console = run(None)
    console.update("make_preview", "1")
    assert console.errors == ["Saving config", KEPT + BOOT_FILE + ".kept2"]
    assert kept.read_bytes() == OLD
    assert board.path(BOOT_FILE + ".kept2").read_bytes() == file_text(make_preview="1")


def test_no_copies_are_kept_without_end(board, run):
    for number in ["", *range(2, 10)]:
        board.write(f"{BOOT_FILE}.kept{number}", f"{number}")
    console = run(None)
    console.update("make_preview", "0")
    assert console.errors == ["Saving config", KEPT + BOOT_FILE + ".kept9"]
    assert board.path(BOOT_FILE + ".kept9").read_bytes() == OLD
    assert board.path(BOOT_FILE + ".kept8").read_text() == "8"
    assert len(names_in(board, "/boot")) == 10


@pytest.mark.parametrize("kind", [stat.S_IFIFO, stat.S_IFCHR], ids=["FIFO", "device"])
def test_no_kept_copy_is_opened_that_is_none(board, run, kind):
    os.makedirs(board.path("/boot"), exist_ok=True)
    os.mknod(board.path(BOOT_FILE + ".kept"), kind | 0o600, os.makedev(1, 3))
    console = run(None)
    console.update("make_preview", "0")
    assert console.errors == ["Saving config", KEPT + BOOT_FILE + ".kept2"]
    assert stat.S_IFMT(board.path(BOOT_FILE + ".kept").stat().st_mode) == kind
    console.daemon.kill()
    for number in range(2, 10):
        board.path(f"{BOOT_FILE}.kept{number}").unlink(missing_ok=True)
        os.mknod(board.path(f"{BOOT_FILE}.kept{number}"), kind | 0o600, os.makedev(1, 3))
    before = board.path(BOOT_FILE).read_bytes()
    board.path(CONFIG).unlink()
    console = run(None)
    console.update("make_preview", "1")
    assert console.errors == ["Saving config", FAILURE + "not a regular file"]
    assert console.boot_file() == before
    assert stat.S_IFMT(board.path(BOOT_FILE + ".kept9").stat().st_mode) == kind


@pytest.mark.parametrize("left", [None, b""], ids=["no file", "an empty one"])
def test_a_board_without_settings_has_nothing_to_keep(board, run, left):
    console = run(None)
    board.path(BOOT_FILE).unlink()
    if left is not None:
        board.write(BOOT_FILE, left)
    console.update("make_preview", "0")
    assert console.errors == ["Saving config"]
    assert names_in(board, "/boot") == ["quillorbeacon.conf"]


def test_a_boot_file_that_appears_with_the_first_save_is_kept_by_the_second(board, run):
    console = run(None)
    board.path(BOOT_FILE).unlink()
    board.write("/tmp/unmounted", OLD)
    install(board, "/sys/board/bin/mount", b"""#!/sys/board/sh
[ "$*" != /boot ] || mv /tmp/unmounted /boot/quillorbeacon.conf 2> /dev/null
""")
    console.update("make_preview", "1")
    assert console.errors == ["Saving config"]
    # The next start has those settings, unless there is another save.
    assert console.boot_file() == OLD and board.path(CONFIG).read_bytes() == copy_of(OLD)
    console.update("osd", "enabled", "1")
    assert console.errors == ["Saving config", KEPT + BOOT_FILE + ".kept"]
    assert board.path(BOOT_FILE + ".kept").read_bytes() == OLD
    assert console.boot_file() == file_text(make_preview="1", osd_enabled="1")


def test_a_boot_partition_that_is_mounted_only_after_the_save_gets_it_too(board, run):
    console = run(b"")
    board.write("/tmp/unmounted", OLD)
    install(board, "/sys/board/bin/mount", b"""#!/sys/board/sh
[ "$*" != /boot ] || mv /tmp/unmounted /boot/quillorbeacon.conf 2> /dev/null
""")
    console.update("make_preview", "0")
    assert console.errors == ["Saving config", f"Config file {BOOT_FILE} is not the one that was "
                                               "written, saving again"]
    assert console.boot_file() == file_text(make_preview="0")
    assert board.path(CONFIG).read_bytes() == copy_of(file_text(make_preview="0"))


def test_a_start_with_settings_keeps_nothing(board, run):
    console = run(b"")
    console.update("make_preview", "0")
    assert console.errors == ["Saving config"]
    assert names_in(board, "/boot") == ["quillorbeacon.conf"]


def test_a_boot_file_that_cannot_be_kept_is_not_replaced(board, run):
    console = run(None)
    fill(board, "/boot", 12288)  # enough for the new file, not for a copy of the old one
    console.update("make_preview", "1")
    assert console.commands == SAVE[:3]
    assert console.errors == ["Saving config", FAILURE + "No space left on device"]
    # And there is no copy that would look newer at the next start-up.
    assert console.boot_file() == OLD and not board.path(CONFIG).exists()
    make_room(board, "/boot")
    console.update("osd", "enabled", "1")
    assert console.errors == ["Saving config", KEPT + BOOT_FILE + ".kept"]
    assert board.path(BOOT_FILE + ".kept").read_bytes() == OLD
    assert console.boot_file() == file_text(make_preview="1", osd_enabled="1")
