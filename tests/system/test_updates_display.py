"""Updates of the display: settings and notifications, composite and HDMI output."""

import pytest

from commands import (BOOT_FILE, SAVE, Console, hold, install, log_lines, parse_settings, release)
from conftest import wait_until
from expected_file import file_text

EMPTY = parse_settings(file_text())
TFT = ["tft-display-waveshare20", "tft-display-waveshare35a", "tft-display-waveshare35b"]
ALL_DISPLAYS = ["display", "osd", *TFT]


def looked_up(names):
    return [f"pidof {name}" for name in names]


def not_found(names):
    return [f"can't kill {name} (PID not found)" for name in names]


@pytest.fixture
def console(board, daemon, make_client):
    return Console(board, daemon, make_client())


@pytest.mark.parametrize("param, sub_command, key, after, stopped", [
    ("display", "enabled", "display_enabled", [], ["display", "osd"]),
    ("display", "hflip", "display_hflip", [], []),
    ("display", "vflip", "display_vflip", [], []),
    ("display", "aspect_ratio", "display_keep_aspect", [], []),
    ("display", "smooth", "display_smooth", [], []),
    ("display", "dualhdmi", "enable_second_hdmi", ["killall -q display"], []),
    ("tft_display", "enabled", "tft_display_enabled", [], TFT),
    ("tft_display", "model", "tft_display_model", [], TFT),
    ("osd", "enabled", "osd_enabled", [], []),
    ("osd", "borders", "osd_borders", [], []),
])
def test_a_display_setting(console, param, sub_command, key, after, stopped):
    # The number is stored as it is, not as a flag.
    console.update(param, sub_command, "2")
    assert console.commands == SAVE + after + looked_up(stopped)
    assert console.errors == ["Saving config"] + not_found(stopped)
    assert console.changes(EMPTY) == {key: "2"}


@pytest.mark.parametrize("sub_command, word", [
    ("hflip", "hflip"), ("vflip", "vflip"), ("aspect_ratio", "aspect"), ("smooth", "smooth")])
@pytest.mark.parametrize("value, state", [
    ("1", "on"), ("-1", "on"), ("256", "on"), ("0", "off"), ("", "off"), ("yes", "off")])
def test_the_display_process_is_told_before_the_save(board, console, sub_command, word, value,
                                                     state):
    display = board.socket(bind=("127.0.0.1", 5255))
    hold(board, "mount")
    console.send("display", sub_command, value)
    text, sender = display.recvfrom(100)
    assert text == f"{word}_{state}".encode()
    assert sender[0] == "127.0.0.1"
    wait_until(lambda: "sh -c mount -o rw,remount /boot" in log_lines(board), "the save")
    assert not board.path(BOOT_FILE).exists()
    release(board, "mount")
    console.update("make_preview", "0")
    display.setblocking(False)
    with pytest.raises(BlockingIOError):
        display.recv(100)


def test_other_display_settings_tell_the_display_process_nothing(board, console):
    display = board.socket(bind=("127.0.0.1", 5255))
    for values in [("display", "enabled", "1"), ("display", "dualhdmi", "1"),
                   ("osd", "enabled", "1"), ("osd", "borders", "1"), ("tft_display", "model", "1")]:
        console.update(*values)
    console.update("display", "hflip", "1")
    assert display.recv(100) == b"hflip_on"


def test_all_notifications_come_from_one_socket(board, console):
    display = board.socket(bind=("127.0.0.1", 5255))
    senders = set()
    for sub_command in ("hflip", "vflip", "aspect_ratio", "smooth"):
        console.update("display", sub_command, "1")
        senders.add(display.recvfrom(100)[1])
    assert len(senders) == 1


def test_nobody_need_listen_to_notifications(console):
    for value in "101":
        console.update("display", "hflip", value)
    assert console.changes(EMPTY) == {"display_hflip": "1"}


# Output switching.

REMOUNT = "mount -o rw,remount /boot > /dev/null 2>&1"
CVBS_UMOUNT = "umount /boot  > /dev/null 2>&1 ; mount /boot > /dev/null 2>&1"
HDMI_UMOUNT = "umount /boot > /dev/null 2>&1 ; mount /boot > /dev/null 2>&1"
HDMI_STATUS = "state 0x12000a [HDMI CEA (16) RGB lim 16:9], 1920x1080 @ 60.00Hz, progressive\n"
PAL_STATUS = "state 0x40001 [PAL 4:3], 720x576 @ 50.00Hz, interlaced\n"
NTSC_STATUS = "state 0x40001 [NTSC 4:3], 720x480 @ 60.00Hz, interlaced\n"

# As on a board: commented-out keys, set keys, remarks, a key that only looks similar.
BOARD_FILE = """# For more options see the manual
#hdmi_force_hotplug=1
#hdmi_group=1
#hdmi_mode=1
 sdtv_mode=9
#sdtv_mode=2
sdtv_aspect=1
xsdtv_mode=5
hdmi_ignore_hotplug_x=3

dtparam=audio=on
[all]
enable_tvout=0
#hdmi_ignore_hotplug=1
gpu_mem=128"""


def cvbs_commands(mode, aspect):
    return [
        REMOUNT,
        "sed -i 's,^\\('#sdtv_mode'=\\).*,'sdtv_mode=',' /boot/config.txt",
        "sed -i 's,^\\('#sdtv_aspect'=\\).*,'sdtv_aspect=',' /boot/config.txt",
        f"sed -i 's,^\\('sdtv_mode'=\\).*,\\1'{mode}',' /boot/config.txt",
        f"sed -i 's,^\\('sdtv_aspect'=\\).*,\\1'{aspect}',' /boot/config.txt",
        "sed -i 's,^\\('#hdmi_ignore_hotplug'=\\).*,'hdmi_ignore_hotplug=',' /boot/config.txt",
        "sed -i 's,^\\('hdmi_ignore_hotplug'=\\).*,\\1'1',' /boot/config.txt",
        "sed -i 's,^\\('hdmi_force_hotplug'=\\).*,'#hdmi_force_hotplug=',' /boot/config.txt",
        "sed -i 's,^\\('enable_tvout'=\\).*,\\1'1',' /boot/config.txt",
        "sync", CVBS_UMOUNT, "tvservice -s"]


@pytest.mark.parametrize("standard, aspect, progressive, mode, number", [
    ("PAL", "4:3", "P", 18, 1), ("PAL", "4:3", "", 2, 1), ("NTSC", "16:9", "", 0, 3),
    ("NTSC", "14:9", "P", 16, 2), ("PAL", "14:9", "X", 0, 2), ("NTSC", "16:9", "X", 0, 3),
    ("PAL", "16:9", "p", 0, 3), ("SECAM", "4:3", "P", 0, 1), ("SECAM", "5:4", "", 0, 0),
    ("pal", "", "", 0, 0), ("", "", "", 0, 0),
])
def test_composite_output(board, console, standard, aspect, progressive, mode, number):
    board.write("/boot/config.txt", BOARD_FILE)
    console.update("cvbs", "testandsave", standard, aspect, progressive)
    assert console.commands == [f'tvservice -c "{standard} {aspect} {progressive}"'] + (
        cvbs_commands(mode, number) + looked_up(ALL_DISPLAYS))
    assert console.errors == [f"new_sdtv_mode={mode}", f"new_sdtv_aspect={number}"] + (
        not_found(ALL_DISPLAYS))
    assert board.path("/boot/config.txt").read_text() == f"""# For more options see the manual
#hdmi_force_hotplug=1
#hdmi_group=1
#hdmi_mode=1
 sdtv_mode=9
sdtv_mode={mode}
sdtv_aspect={number}
xsdtv_mode=5
hdmi_ignore_hotplug_x=3

dtparam=audio=on
[all]
enable_tvout=1
hdmi_ignore_hotplug=1
gpu_mem=128"""
    assert not board.path(BOOT_FILE).exists()


def test_composite_output_switches_hdmi_settings_off(board, console):
    board.write("/boot/config.txt", "hdmi_force_hotplug=1\nhdmi_ignore_hotplug=0\nenable_tvout=7\n"
                                    "#sdtv_aspect=3\n#enable_tvout=0\nhdmi_mode=82\n")
    console.update("cvbs", "testandsave", "PAL", "4:3", "")
    assert board.path("/boot/config.txt").read_text() == (
        "#hdmi_force_hotplug=\nhdmi_ignore_hotplug=1\nenable_tvout=1\nsdtv_aspect=1\n"
        "#enable_tvout=0\nhdmi_mode=82\n")


def test_a_composite_test_only_asks_tvservice(board, console):
    board.write("/boot/config.txt", BOARD_FILE)
    console.update("cvbs", "test", "PAL", "4:3", "P")
    assert console.commands == ['tvservice -c "PAL 4:3 P"']
    assert console.tools == ["tvservice -c PAL 4:3 P"]
    assert console.errors == []
    assert board.path("/boot/config.txt").read_text() == BOARD_FILE


def test_missing_values_leave_their_blanks(console):
    console.update("cvbs", "test")
    assert console.commands == ['tvservice -c "  "']
    console.update("hdmi", "test", None, "82")
    assert console.commands[0] == 'tvservice -e " 82"'
    console.update("hdmi", "test", "CEA")
    assert console.commands[0] == 'tvservice -e "CEA "'


@pytest.mark.parametrize("status, reboots", [
    (HDMI_STATUS, True), (PAL_STATUS, False), (NTSC_STATUS, False), ("", False), ("hdmi\n", False)])
def test_composite_output_reboots_when_hdmi_is_on(board, console, status, reboots):
    board.prepare_output("tvservice", status)
    console.update("cvbs", "testandsave", "PAL", "4:3", "")
    at = console.commands.index("tvservice -s") + 1
    assert console.commands[at:] == ["reboot"] * reboots + looked_up(ALL_DISPLAYS)


@pytest.mark.parametrize("values, word", [
    (("cvbs", "testandsave", "PAL", "4:3", ""), "HDMI"), (("hdmi", "testandsave"), "PAL"),
    (("hdmi", "testandsave"), "NTSC")])
@pytest.mark.parametrize("place", [0, 1500, 3000])
def test_the_output_is_found_anywhere_in_what_tvservice_prints(board, console, values, word,
                                                               place):
    board.prepare_output("tvservice", "x" * place + word + "y" * 100)
    console.update(*values)
    assert console.commands.count("reboot") == 1


def hdmi_setup():
    return [
        REMOUNT,
        "sed -i 's,^\\('hdmi_ignore_hotplug'=\\).*,'#hdmi_ignore_hotplug=',' /boot/config.txt",
        "sed -i 's,^\\('#hdmi_force_hotplug'=\\).*,'hdmi_force_hotplug=',' /boot/config.txt",
        "sed -i 's,^\\('hdmi_force_hotplug'=\\).*,\\1'1',' /boot/config.txt",
        "sed -i 's,^\\('enable_tvout'=\\).*,\\1'0',' /boot/config.txt"]


@pytest.mark.parametrize("group, mode, number", [
    ("DMT", "82", 2), ("CEA", "16", 1), ("OTHER", "4", 0), ("", "4", 0), ("CEA", "", 1),
    ("dmt", "1", 0)])
def test_hdmi_output(board, console, group, mode, number):
    board.write("/boot/config.txt", BOARD_FILE)
    console.update("hdmi", "testandsave", group, mode)
    assert console.commands == [f'tvservice -e "{group} {mode}"'] + hdmi_setup() + [
        "sed -i 's,^\\('#hdmi_group'=\\).*,'hdmi_group=',' /boot/config.txt",
        "sed -i 's,^\\('#hdmi_mode'=\\).*,'hdmi_mode=',' /boot/config.txt",
        f"sed -i 's,^\\('hdmi_mode'=\\).*,\\1'{mode}',' /boot/config.txt",
        f"sed -i 's,^\\('hdmi_group'=\\).*,\\1'{number}',' /boot/config.txt",
        "sync", HDMI_UMOUNT, "tvservice -s"] + looked_up(ALL_DISPLAYS)
    assert console.errors == not_found(ALL_DISPLAYS)
    assert board.path("/boot/config.txt").read_text() == f"""# For more options see the manual
hdmi_force_hotplug=1
hdmi_group={number}
hdmi_mode={mode}
 sdtv_mode=9
#sdtv_mode=2
sdtv_aspect=1
xsdtv_mode=5
hdmi_ignore_hotplug_x=3

dtparam=audio=on
[all]
enable_tvout=0
#hdmi_ignore_hotplug=1
gpu_mem=128"""
    assert not board.path(BOOT_FILE).exists()


@pytest.mark.parametrize("values", [("", ""), (None, None), ([7], None)])
def test_the_preferred_hdmi_mode(board, console, values):
    board.write("/boot/config.txt", "hdmi_group=2\nhdmi_mode=82\nhdmi_ignore_hotplug=1\n"
                                    "enable_tvout=1\nhdmi_force_hotplug=0\n")
    console.update("hdmi", "testandsave", *values)
    assert console.commands == ["tvservice -p"] + hdmi_setup() + [
        "sed -i 's,^\\('hdmi_group'=\\).*,'#hdmi_group=',' /boot/config.txt",
        "sed -i 's,^\\('hdmi_mode'=\\).*,'#hdmi_mode=',' /boot/config.txt",
        "sync", HDMI_UMOUNT, "tvservice -s"] + looked_up(ALL_DISPLAYS)
    assert board.path("/boot/config.txt").read_text() == (
        "#hdmi_group=\n#hdmi_mode=\n#hdmi_ignore_hotplug=\nenable_tvout=0\nhdmi_force_hotplug=1\n")


@pytest.mark.parametrize("values, command", [
    (("DMT", "82"), 'tvservice -e "DMT 82"'), (("", ""), "tvservice -p")])
def test_an_hdmi_test_leaves_the_boot_partition_alone(board, console, values, command):
    board.write("/boot/config.txt", BOARD_FILE)
    console.update("hdmi", "test", *values)
    assert console.commands == [command] + looked_up(ALL_DISPLAYS)
    assert board.path("/boot/config.txt").read_text() == BOARD_FILE


@pytest.mark.parametrize("status, reboots", [
    (HDMI_STATUS, False), (PAL_STATUS, True), (NTSC_STATUS, True), ("PAL NTSC", True),
    ("", False), ("pal", False)])
def test_hdmi_output_reboots_once_when_composite_output_is_on(board, console, status, reboots):
    board.prepare_output("tvservice", status)
    console.update("hdmi", "testandsave", "DMT", "82")
    at = console.commands.index("tvservice -s") + 1
    assert console.commands[at:] == ["reboot"] * reboots + looked_up(ALL_DISPLAYS)


NOTES_THE_TIME = b"#!/sys/board/sh\ndate +%s%N >> /sys/board/times\n"


@pytest.mark.parametrize("sub_command", ["test", "testandsave"])
def test_hdmi_output_settles_before_the_displays_are_restarted(board, console, sub_command):
    install(board, "/sys/board/bin/tvservice", NOTES_THE_TIME)
    install(board, "/sys/board/bin/pidof", NOTES_THE_TIME)
    console.update("hdmi", sub_command, "DMT", "82")
    times = [int(line) / 1e9 for line in board.path("/sys/board/times").read_text().split()]
    asked = 1 if sub_command == "test" else 2  # the last one is "tvservice -s"
    assert len(times) == asked + 5
    assert 0.49 < times[asked] - times[asked - 1] < 3.5
