"""The saved configuration file: its bytes, the commands around a save, and loading it again."""

import re
import time

import pytest

from board import promised
from commands import (BOOT_FILE, SAVE, Console, hold, install, log_lines, parse_settings, release,
                      update_text)
from conftest import CONFIG, wait_until
from expected_file import ALL, LAYOUT, file_text


# An empty mask in the file is loaded as this value.
MASKS = {"eth_static_mask": "255.255.255.0", "wifi_static_mask": "255.255.255.0"}


def lines_of(settings):
    return "".join(f"{key}={value}\n" for key, value in settings.items())


@pytest.fixture
def run(board, start, make_client):
    """run(config): the daemon with this configuration (None: what the board has) and its client.

    The recording input is low, so that the poller leaves `recording_enabled` alone.
    """
    number = iter(range(2, 100))

    def make(config=""):
        board.write("/run/gpio/204", "0")
        return Console(board, start(config, gpio=True), make_client(f"127.0.0.{next(number)}"))

    return make


def save(console):
    """Saves without changing anything."""
    value = parse_settings(file_text(**ALL))["osd_enabled"]
    console.update("osd", "enabled", value)


def test_the_expected_text_has_every_key_and_the_blanks_at_line_ends():
    assert len(ALL) == 81 == len(parse_settings(LAYOUT.encode()))
    assert len(set(ALL.values())) == 80  # the two flags are both 1
    assert LAYOUT.count("~\n") == 19 == file_text().count(b" \r\n")


def test_the_file_of_an_empty_configuration(board, run):
    console = run()
    console.update("osd", "enabled", "0")
    assert console.boot_file() == file_text()
    assert board.path(CONFIG).read_bytes() == file_text().replace(b"\r\n", b"\n")


def test_the_file_with_every_key_set(board, run):
    console = run(lines_of(ALL))
    save(console)
    assert console.boot_file() == file_text(**ALL)
    assert board.path(CONFIG).read_bytes() == file_text(**ALL).replace(b"\r\n", b"\n")


def test_every_key_survives_a_restart(board, run):
    console = run(lines_of(ALL))
    save(console)
    console.daemon.kill()
    board.path(BOOT_FILE).unlink()
    console = run(None)
    save(console)
    assert console.boot_file() == file_text(**ALL)


def test_the_file_on_the_boot_partition_loads_when_it_is_copied_as_at_start_up(board, run):
    board.write(BOOT_FILE, file_text(**ALL))
    board.path("/run/quillorbeacon").mkdir()
    board.run("sh", "-c", SAVE[3])
    console = run(None)
    save(console)
    assert console.boot_file() == file_text(**ALL)


def test_a_longer_file_is_replaced_whole(board, run):
    board.write(BOOT_FILE, "x" * 100000)
    console = run()
    console.update("osd", "enabled", "0")
    assert console.boot_file() == file_text()


def test_the_largest_file_is_whole(run):
    sizes = {"rc1_channels": 9999, "rc2_channels": 9999, "stream_udp_clients": 999,
             "stream_rtmp_url": 999, "stream_rtmp_key": 999, "stream2_rtmp_url": 999,
             "stream2_rtmp_key": 999, "stream_srt_url": 999, "automove_list": 1199}
    # A line of the file holds at most 9999 characters, including key and "=".
    largest = {key: "v" * min(size, 9985 - len(key)) for key, size in sizes.items()}
    console = run(lines_of(largest))
    console.update("osd", "enabled", "0")
    assert console.boot_file() == file_text(**largest)


@pytest.mark.parametrize("loaded, kept", [
    ("app_type=300", {"app_type": "44"}),
    ("app_type=255", {"app_type": "255"}),
    ("app_type=-1", {"app_type": "255"}),
    ("recording_gpio=256", {}),
    ("rc_enabled=2", {"rc_enabled": "2"}),
    ("eth_static_ip_enabled=254", {"eth_static_ip_enabled": "254"}),
    ("wifi_static_ip_enabled=255", {"wifi_static_ip_enabled": "255"}),
    ("fs_rw=256", {"fs_rw": "1"}),
    ("make_preview=-5", {"make_preview": "1"}),
    ("make_preview=none", {}),
    ("osd_enabled=2", {"osd_enabled": "2"}),
    ("osd_borders=-7", {"osd_borders": "-7"}),
    ("eth_static_mask=", {"eth_static_mask": "255.255.255.0"}),
    ("wifi_static_mask=", {"wifi_static_mask": "255.255.255.0"}),
    ('ap_ssid="a "b" c"', {"ap_ssid": "a b c"}),
    ('system_country="DE"', {"system_country": "DE"}),
    ('ap_country="F"R', {"ap_country": "FR"}),
    ('ap_iface="int"', {"ap_iface": "int"}),
    ('wifi_iface="ext"', {"wifi_iface": "ext"}),
    ('camera_iface="ext"', {"camera_iface": "ext"}),
    ('rc1_mode="sbus"', {"rc1_mode": '"sbus"'}),
    ('zerotier_netid="ab"', {"zerotier_netid": '"ab"'}),
    ('stream_udp_clients="ab"', {"stream_udp_clients": '"ab"'}),
    ('eth_static_ip="1"', {"eth_static_ip": '"1"'}),
    ("ap_psk=%n%s%1000000d", {"ap_psk": "%n%s%1000000d"}),
])
def test_what_was_loaded_is_what_is_saved(run, loaded, kept):
    console = run(loaded + "\n")
    console.update("make_preview", parse_settings(file_text(**kept))["make_preview"])
    assert console.boot_file() == file_text(**kept)


def test_only_carriage_returns_at_line_ends_are_stripped(board, run):
    console = run("ap_ssid=left\rright\n")
    console.update("osd", "enabled", "0")
    assert b'\r\nap_ssid="left\rright"\r\n' in console.boot_file()
    assert b'\nap_ssid="left\rright"\n' in board.path(CONFIG).read_bytes()


def test_an_empty_configuration_gets_its_masks_with_the_restart(run):
    console = run()
    console.update("osd", "enabled", "0")
    console.daemon.kill()
    console = run(None)
    console.update("osd", "enabled", "0")
    assert console.boot_file() == file_text(**MASKS)


def test_double_quotes_in_a_quoted_key_are_gone_after_a_restart(run):
    console = run()
    console.send("app_type", "0", '"Tower" "cam')
    assert console.daemon.wait_exit() == 1
    assert b'device_name=""Tower" "cam"\r\n' in console.boot_file()
    console = run(None)
    console.update("osd", "enabled", "0")
    assert console.boot_file() == file_text(device_name="Tower cam", **MASKS)


def test_a_text_that_fills_a_quoted_key_loses_its_last_character_on_reload(run):
    filled = "123456789-123456789-123456789-12345678Z"
    console = run()
    console.update("wlan", "", filled, "", "", "", "", "", "", "", "", "", "", "")
    assert len(filled) == 39
    wifi_mask = MASKS["wifi_static_mask"]
    assert console.boot_file() == file_text(camera_ssid=filled, wifi_static_mask=wifi_mask)
    # Of the 41 characters in the file, "Z" and the closing quote are truncated first.
    console.daemon.kill()
    console = run(None)
    console.update("osd", "enabled", "0")
    assert console.boot_file() == file_text(camera_ssid=filled[:38], **MASKS)
    console.daemon.kill()
    console = run(None)
    console.update("osd", "enabled", "0")
    assert console.boot_file() == file_text(camera_ssid=filled[:38], **MASKS)


def test_commands_and_messages_of_a_save(run):
    console = run()
    console.update("osd", "enabled", "1")
    assert console.commands == [
        "mount -o rw,remount /boot", "umount /boot", "mount /boot",
        "cat /boot/quillorbeacon.conf | sed 's/\r$//' > /run/quillorbeacon/config.conf"]
    assert console.errors == ["Saving config"]


def test_failing_commands_do_not_keep_the_file_from_being_written(board, run):
    console = run()
    for tool in ("mount", "umount"):
        board.path(f"/sys/board/bin/{tool}").unlink()
        board.write(f"/sys/board/bin/{tool}", "#!/sys/board/sh\nexit 3\n").chmod(0o755)
    console.update("osd", "enabled", "1")
    assert console.commands == SAVE
    assert console.boot_file() == file_text(osd_enabled="1")


def test_a_boot_file_that_cannot_be_opened(board, run):
    console = run("osd_borders=3\n")
    board.path(BOOT_FILE).mkdir()
    console.update("osd", "enabled", "1")
    assert console.commands == ["mount -o rw,remount /boot"]
    assert console.errors == ["Saving config"]
    assert board.path(CONFIG).read_text() == "osd_borders=3\n"
    # The change is kept, and the next save works.
    board.path(BOOT_FILE).rmdir()
    console.update("make_preview", "1")
    assert console.commands == SAVE
    assert console.errors == ["Saving config"]
    assert console.boot_file() == file_text(osd_enabled="1", osd_borders="3", make_preview="1")


@pytest.fixture
def two(board, run):
    """A client and the data source; their commands run on separate threads."""
    console = run()
    console.source = board.socket(bind=("127.0.0.50", 0))
    return console


def from_source(console, *values):
    console.source.sendto(update_text(*values), ("127.0.0.1", 5000))


def saves_in_log(board):
    lines = [line.removeprefix("sh -c ") for line in log_lines(board) if line.startswith("sh -c ")]
    return lines[lines.index(SAVE[0]):] if SAVE[0] in lines else []


def test_a_second_save_waits_for_the_first(board, two):
    hold(board, "mount")
    two.send("osd", "enabled", "1")
    wait_until(lambda: saves_in_log(board), "the first save")
    from_source(two, "osd", "borders", "2")
    two.daemon.wait_error("Config busy, waiting...\n")
    begin = time.monotonic()
    two.daemon.wait_error("Config busy, waiting...\n", 8)
    # Seven pauses of 100 ms; the first line is seen a few ms late.
    assert 0.6 < time.monotonic() - begin < promised(2)
    assert saves_in_log(board) == SAVE[:1]
    release(board, "mount")
    two.daemon.wait_error("Saving config\n", 2)
    wait_until(lambda: len(saves_in_log(board)) == 8, "both saves")
    assert saves_in_log(board) == SAVE + SAVE
    wait_until(lambda: two.boot_file() == file_text(osd_enabled="1", osd_borders="2"), "the file")
    errors = two.daemon.errors()
    first, second = (part.start() for part in re.finditer("Saving config\n", errors))
    assert first < errors.index("Config busy, waiting...\n")
    assert errors.rindex("Config busy, waiting...\n") < second


# A `cat` that waits as a stand-in does and then becomes `cat`.
HOLDING_CAT = b"""#!/sys/board/sh
while [ -e /tmp/hold/cat ]; do sleep 0.02; done
exec /usr/bin/cat "$@"
"""


@pytest.mark.parametrize("tool, done", [("umount", 2), ("cat", 4)])
def test_a_second_save_waits_for_the_last_command_of_the_first(board, two, tool, done):
    hold(board, tool)
    if tool == "cat":
        install(board, "/sys/board/bin/cat", HOLDING_CAT)
    two.send("osd", "enabled", "1")
    wait_until(lambda: len(saves_in_log(board)) == done, "the first file")
    from_source(two, "osd", "borders", "2")
    two.daemon.wait_error("Config busy, waiting...\n", 4)
    assert saves_in_log(board) == SAVE[:done]
    assert two.daemon.errors().count("Saving config\n") == 1
    assert two.boot_file() == file_text(osd_enabled="1")
    release(board, tool)
    wait_until(lambda: len(saves_in_log(board)) == 8, "both saves")
    assert saves_in_log(board) == SAVE + SAVE
    last = file_text(osd_enabled="1", osd_borders="2")
    assert two.boot_file() == last
    wait_until(lambda: board.path(CONFIG).read_bytes() == last.replace(b"\r\n", b"\n"), "the copy")


def test_values_are_read_when_the_save_before_is_done(board, run):
    board.write("/run/gpio/4", "1")
    console = run("recording_gpio=4\n")
    console.source = board.socket(bind=("127.0.0.50", 0))
    hold(board, "mount")
    console.send("osd", "enabled", "1")
    wait_until(lambda: SAVE[0] in saves_in_log(board), "the first save")
    from_source(console, "osd", "borders", "2")
    console.daemon.wait_error("Config busy, waiting...\n")
    # The trigger changes a setting on the main thread, without saving it.
    board.write("/run/gpio/4", "0")
    marker = "sh -c touch /run/quillorbeacon/recorder-enabled"
    wait_until(lambda: marker in log_lines(board), "the trigger")
    assert console.daemon.errors().count("Saving config\n") == 1
    release(board, "mount")
    wait_until(lambda: saves_in_log(board).count(SAVE[3]) == 2, "both saves")
    assert console.boot_file() == file_text(recording_gpio="4", osd_enabled="1", osd_borders="2",
                                            recording_enabled="1")


def test_values_are_read_before_the_boot_partition_is_mounted(board, two):
    hold(board, "mount")
    two.send("osd", "enabled", "1")
    wait_until(lambda: saves_in_log(board), "the first save")
    from_source(two, "osd", "borders", "2")
    two.daemon.wait_error("Config busy, waiting...\n")  # the record has the new value now
    hold(board, "umount")
    release(board, "mount")
    wait_until(lambda: SAVE[1] in saves_in_log(board), "the first file")
    assert two.boot_file() == file_text(osd_enabled="1")
    release(board, "umount")
    wait_until(lambda: two.boot_file() == file_text(osd_enabled="1", osd_borders="2"), "the second")


def test_a_save_that_fails_lets_the_waiting_one_through(board, two):
    board.path(BOOT_FILE).mkdir()
    hold(board, "mount")
    two.send("osd", "enabled", "1")
    wait_until(lambda: saves_in_log(board), "the first save")
    from_source(two, "osd", "borders", "2")
    two.daemon.wait_error("Config busy, waiting...\n")
    release(board, "mount")
    two.daemon.wait_error("Saving config\n", 2)
    wait_until(lambda: saves_in_log(board) == [SAVE[0]] * 2, "both remounts")
    two.update("make_preview", "0")
    assert saves_in_log(board) == [SAVE[0]] * 3
