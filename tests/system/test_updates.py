"""What each update changes, saves, runs and stops. Video output: test_updates_display.py."""

import pytest

from commands import (BOOT_FILE, OTHER_ERRORS, SAVE, Console, hold, log_lines, parse_settings,
                      release)
from conftest import CONFIG, wait_until
from expected_file import file_text

EMPTY = parse_settings(file_text())
REMOTE = ["cd ../cams ; ./kill-cams.sh ; cd .."]
SAVED = ["Saving config"]


def looked_up(*names):
    return [f"pidof {name}" for name in names]


def not_found(*names):
    return [f"can't kill {name} (PID not found)" for name in names]


NO_RECORDER = ["can't send signal 10 to process recorder (PID not found)"]
TFT = ("tft-display-waveshare20", "tft-display-waveshare35a", "tft-display-waveshare35b")
SRT = ("srt-restreamer", "srt-live-transmit", "gst-srt")

# values, settings changed, commands, lines on standard error
ROWS = {
    "ethernet on": (
        ("ethernet", "1", "10.0.0.7", "255.0.0.0"),
        {"eth_static_ip_enabled": "1", "eth_static_ip": "10.0.0.7",
         "eth_static_mask": "255.0.0.0"},
        SAVE + ["dhcpcd --release eth0", "ip addr flush dev eth0",
                "ifconfig eth0 10.0.0.7 netmask 255.0.0.0 up", "ip route add dev eth0 default"],
        SAVED),
    "ethernet off": (
        ("ethernet", "0", "10.0.0.8", "255.255.0.0"),
        {"eth_static_ip": "10.0.0.8", "eth_static_mask": "255.255.0.0"},
        SAVE + ["ip addr flush dev eth0", "ip route delete default", "dhcpcd --rebind eth0"],
        SAVED),
    "ethernet, empty mask": (
        ("ethernet", "2", "10.0.0.7", ""),
        {"eth_static_ip_enabled": "2", "eth_static_ip": "10.0.0.7",
         "eth_static_mask": "255.255.255.0"},
        SAVE + ["dhcpcd --release eth0", "ip addr flush dev eth0",
                "ifconfig eth0 10.0.0.7 netmask 255.255.255.0 up",
                "ip route add dev eth0 default"],
        SAVED),
    "ethernet, no address": (
        ("ethernet", "1"),
        {"eth_static_ip_enabled": "1", "eth_static_mask": "255.255.255.0"},
        SAVE + ["dhcpcd --release eth0", "ip addr flush dev eth0",
                "ifconfig eth0  netmask 255.255.255.0 up", "ip route add dev eth0 default"],
        SAVED),
    "wlan": (
        ("wlan", "ext", "Cam 1", "campsk", "int", "Home", "homepsk", "ap", "Nest", "nestpsk", "5",
         "36", "FR", "DE", "1", "10.0.0.3", "255.255.0.0"),
        {"camera_iface": "ext", "camera_ssid": '"Cam 1"', "camera_psk": '"campsk"',
         "wifi_iface": "int", "wifi_ssid": '"Home"', "wifi_psk": '"homepsk"', "ap_iface": "ap",
         "ap_ssid": '"Nest"', "ap_psk": '"nestpsk"', "ap_mode": "5", "ap_channel": "36",
         "ap_country": "FR", "system_country": "DE", "wifi_static_ip_enabled": "1",
         "wifi_static_ip": "10.0.0.3", "wifi_static_mask": "255.255.0.0"},
        SAVE + ["iw reg set DE", "rm -f /run/quillorbeacon/ap.ready",
                "rm -f /run/quillorbeacon/wlan.ready", "rm -f /run/quillorbeacon/camera.ready"],
        ["New Wlan settings:", "\tCamera iface: ext", "\tCamera SSID: Cam 1",
         "\tCamera PSK: campsk", "\tNetwork iface: int", "\tNetwork SSID: Home",
         "\tNetwork PSK: homepsk", "\tAccess Point iface: ap", "\tAccess Point SSID: Nest",
         "\tAccess Point PSK: nestpsk", "\tAccess Point Mode: 5", "\tAccess Point Channel: 36",
         "\tAccess Point Country: FR", "\tSystem Country: DE", "Saving config"]),
    "wlan, nothing given": (
        ("wlan",),
        {"wifi_static_mask": "255.255.255.0"},
        SAVE + ["iw reg set ", "rm -f /run/quillorbeacon/ap.ready",
                "rm -f /run/quillorbeacon/wlan.ready", "rm -f /run/quillorbeacon/camera.ready"],
        ["New Wlan settings:", "\tCamera iface: ", "\tCamera SSID: ", "\tCamera PSK: ",
         "\tNetwork iface: ", "\tNetwork SSID: ", "\tNetwork PSK: ", "\tAccess Point iface: ",
         "\tAccess Point SSID: ", "\tAccess Point PSK: ", "\tAccess Point Mode: 0",
         "\tAccess Point Channel: 0", "\tAccess Point Country: ", "\tSystem Country: ",
         "Saving config"]),
    "streaming udp": (
        ("streaming", "udp", "1", "10.0.0.4:5600,10.0.0.5:5601", "1316"),
        {"stream_udp_enabled": "1", "stream_udp_clients": "10.0.0.4:5600,10.0.0.5:5601",
         "stream_udp_blocksize": "1316"},
        SAVE,
        ["", "Restreaming clients:", "\t0: 10.0.0.4:5600", "\t1: 10.0.0.5:5601", "",
         "Saving config"]),
    "streaming rtmp": (
        ("streaming", "rtmp", "1", "rtmp://a/b", "key 1", "2", "rtmp://c/d", "key 2"),
        {"stream_rtmp_enabled": "1", "stream_rtmp_url": '"rtmp://a/b"',
         "stream_rtmp_key": '"key 1"', "stream2_rtmp_enabled": "2",
         "stream2_rtmp_url": '"rtmp://c/d"', "stream2_rtmp_key": '"key 2"'},
        SAVE + looked_up("rtmp-restreamer", "gst-rtmp"),
        SAVED + not_found("rtmp-restreamer", "gst-rtmp")),
    "streaming rtsp": (
        ("streaming", "rtsp", "1"), {"rtsp_server_enabled": "1"},
        SAVE + looked_up("rtsp-server-manager"), SAVED + not_found("rtsp-server-manager")),
    "streaming srt": (
        ("streaming", "srt", "1", "srt://10.0.0.6:7001?mode=caller"),
        {"stream_srt_enabled": "1", "stream_srt_url": "srt://10.0.0.6:7001?mode=caller"},
        SAVE + looked_up(*SRT), SAVED + not_found(*SRT)),
    "recording": (
        ("recording", "0", "2", "0", "0", "0"),
        {"recording_place": "2"},
        SAVE + ["rm -f /run/quillorbeacon/recorder-enabled", "pidof recorder"] + REMOTE,
        SAVED + NO_RECORDER),
    "transcoding": (
        ("transcoding", "1", "4000000", "2", "1280", "720"),
        {"transcoding_enabled": "1", "transcoding_bitrate": "4000000", "resize_enabled": "2",
         "resize_width": "1280", "resize_height": "720"},
        SAVE + looked_up("transcoder", *SRT, "rtsp-server-manager"),
        ["Init frame buffer 60003624 bytes", "Init frame buffer for transcoding 13003624 bytes",
         "Saving config"] + not_found("transcoder", *SRT, "rtsp-server-manager")),
    "audio": (
        ("audio", "1", "96000", "2", "3", "70"),
        {"audio_enabled": "1", "audio_bitrate": "96000", "audio_dst": "2", "audio_autogain": "3",
         "audio_volume": "70"},
        SAVE + looked_up("gst-audio-src", "gst-rtmp", "rtsp-server-manager"),
        SAVED + not_found("gst-audio-src", "gst-rtmp", "rtsp-server-manager")),
    "internal camera": (
        ("internal_camera", "0", "-w 640 -h 480 --hflip"),
        {"internal_camera_params": '"-w 640 -h 480 --hflip"'},
        SAVE + looked_up("raspivid"), SAVED + not_found("raspivid")),
    "rc": (
        ("rc", "1", "sbus", "crsf"), {"rc_enabled": "1", "rc1_mode": "sbus", "rc2_mode": "crsf"},
        SAVE + looked_up("rc"), SAVED + not_found("rc")),
    "gimbal": (
        ("gimbal", "1", "2", "3", "4", "5", "6", "7"),
        {"gimbal_movement_type": "1", "rc_pan_smooth": "2", "rc_tilt_smooth": "3",
         "rc_roll_smooth": "4", "app_pan_smooth": "5", "app_tilt_smooth": "6",
         "app_roll_smooth": "7"},
        SAVE, ["New config for gimbal control"] + SAVED),
    "fs_rw on": (
        ("fs_rw", "7"), {"fs_rw": "1"},
        SAVE + ["mount -o rw,remount /", "mount -o rw,remount /boot"],
        SAVED + ["Mounting FS in read-write mode"]),
    "fs_rw off": (("fs_rw", "0"), {}, SAVE, SAVED),
    "make_preview": (("make_preview", "-3"), {"make_preview": "1"}, SAVE, SAVED),
    "zerotier on": (
        ("zerotier", "params", "1", "2", "8056c2e21c000001"),
        {"zerotier_enabled": "1", "zerotier_autojoin": "2", "zerotier_netid": "8056c2e21c000001"},
        SAVE, SAVED),
    "zerotier off": (
        ("zerotier", "params", "0", "2", "8056c2e21c000001"),
        {"zerotier_autojoin": "2", "zerotier_netid": "8056c2e21c000001"},
        ["killall -q zerotier-one"] + SAVE, SAVED),
}

# Nothing is saved.
UNSAVED = {
    "zerotier join": (("zerotier", "join", None, None, "8056c2e21c000001"),
                      ["zerotier-cli join 8056c2e21c000001"]),
    "zerotier join nothing": (("zerotier", "join", "no", "no"), ["zerotier-cli join "]),
    "zerotier leave": (("zerotier", "leave", None, None, "8056c2e21c000002"),
                       ["zerotier-cli leave 8056c2e21c000002"]),
    "zerotier leave nothing": (("zerotier", "leave"), ["zerotier-cli leave "]),
    "zerotier clear": (
        ("zerotier", "clear"),
        ["mount -o rw,remount /boot", "rm -f /boot/identity.public /boot/identity.secret",
         "mount -o ro,remount /boot", "killall -q zerotier-one"]),
}


@pytest.fixture
def console(board, daemon, make_client):
    return Console(board, daemon, make_client())


@pytest.mark.parametrize("name", ROWS)
def test_an_update(console, name):
    values, changed, commands, errors = ROWS[name]
    console.update(*values)
    assert console.commands == commands
    assert console.errors == errors
    assert console.changes(EMPTY) == changed


@pytest.mark.parametrize("name", UNSAVED)
def test_an_update_that_is_not_saved(board, console, name):
    values, commands = UNSAVED[name]
    console.update(*values)
    assert console.commands == commands
    assert console.errors == []
    assert not board.path(BOOT_FILE).exists()


def test_zerotier_clear_removes_the_identity(board, console):
    for name in ("identity.public", "identity.secret", "other"):
        board.write(f"/boot/{name}", "x")
    console.update("zerotier", "clear")
    assert [path.name for path in board.path("/boot").iterdir()] == ["other"]


def test_wlan_removes_the_ready_files(board, console):
    for name in ("ap.ready", "wlan.ready", "camera.ready", "eth.ready"):
        board.write(f"/run/quillorbeacon/{name}", "")
    console.update("wlan")
    assert [path.name for path in board.path("/run/quillorbeacon").glob("*.ready")] == ["eth.ready"]


def test_the_kill_cams_script_runs_in_the_cams_directory(board, console):
    board.write("/sys/board/app/cams/kill-cams.sh",
                "#!/sys/board/sh\necho cams $PWD >> /sys/board/log\n")
    console.update("recording", "0")
    assert "cams /sys/board/app/cams" in console.tools


@pytest.mark.parametrize("value, marker", [("1", True), ("2", True), ("0", False), ("", False)])
def test_recording_always_removes_the_marker_and_stores_all(board, start, make_client, value,
                                                            marker):
    for pin in ("4", "17", "22"):
        board.write(f"/run/gpio/{pin}", "0" if pin == "4" and marker else "1")
    console = Console(board, start(gpio=True), make_client())
    board.write("/run/quillorbeacon/recorder-enabled", "")
    console.update("recording", value, "1", "4", "17", "22")
    assert console.commands == SAVE + ["rm -f /run/quillorbeacon/recorder-enabled",
                                       "pidof recorder"] + REMOTE
    assert not board.path("/run/quillorbeacon/recorder-enabled").exists()
    changed = {"recording_place": "1", "recording_gpio": "4", "recording_btn_gpio": "17",
               "shot_btn_gpio": "22", **({"recording_enabled": value} if marker else {})}
    assert console.changes(EMPTY) == changed


def set_pins(board):
    calls = board.path("/run/gpio/calls").read_text().splitlines()[3:]
    return [call for call in calls if not call.startswith("gpioRead ")]  # the poller's


def test_recording_sets_up_its_inputs_in_order_before_it_saves(board, start, make_client):
    console = Console(board, start(gpio=True), make_client())
    hold(board, "mount")
    console.send("recording", "0", "0", "22", "4", "17")
    wait_until(lambda: "sh -c mount -o rw,remount /boot" in log_lines(board), "the save")
    assert set_pins(board) == ["gpioSetMode 22 0", "gpioSetPullUpDown 22 2", "gpioSetMode 4 0",
                               "gpioSetPullUpDown 4 2", "gpioSetMode 17 0",
                               "gpioSetPullUpDown 17 2"]
    release(board, "mount")


def test_recording_leaves_unused_inputs_alone(board, start, make_client):
    console = Console(board, start(gpio=True), make_client())
    console.update("recording", "0", "0", "0", "256", "17")
    assert set_pins(board) == ["gpioSetMode 17 0", "gpioSetPullUpDown 17 2"]


@pytest.mark.parametrize("value", ["1", "5"])
def test_rec_on_signals_marks_and_saves_nothing(board, console, value):
    console.update("rec", value)
    assert console.commands == ["pidof recorder", "touch /run/quillorbeacon/recorder-enabled"] + (
        REMOTE)
    assert console.errors == NO_RECORDER
    assert board.path("/run/quillorbeacon/recorder-enabled").exists()
    assert not board.path(BOOT_FILE).exists() and board.path(CONFIG).read_bytes() == b""
    # It is the setting nevertheless: the next save includes it.
    console.update("make_preview", "0")
    assert console.changes(EMPTY) == {"recording_enabled": value}


def test_rec_off_removes_the_marker_and_saves_nothing(board, start, make_client):
    console = Console(board, start("recording_enabled=1\n"), make_client())
    board.write("/run/quillorbeacon/recorder-enabled", "")
    console.update("rec", "0")
    assert console.commands == ["pidof recorder", "rm -f /run/quillorbeacon/recorder-enabled"]
    assert not board.path("/run/quillorbeacon/recorder-enabled").exists()
    assert not board.path(BOOT_FILE).exists()
    console.update("make_preview", "0")
    assert console.changes(EMPTY) == {}


def test_app_type_ends_the_daemon_when_its_script_has_ended(board, console):
    hold(board, "otg-switcher.php", "/sys/board/app/daemon/otg-switcher.php")
    begin = len(log_lines(board)) - 1
    # The script gets the stored low byte; the name is truncated to its field.
    console.send("app_type", "265", "n" * 60)
    wait_until(lambda: "otg-switcher.php 9" in log_lines(board), "the script")
    assert console.daemon.alive()
    assert console.changes(EMPTY) == {"app_type": "9", "device_name": '"' + "n" * 39 + '"'}
    release(board, "otg-switcher.php")
    assert console.daemon.wait_exit() == 1
    assert board.path("/sys/board/ends").read_text() == "otg-switcher.php ends\n"
    lines = [line for line in log_lines(board)[begin:] if line.startswith("sh -c ")]
    assert [line.removeprefix("sh -c ") for line in lines] == SAVE + REMOTE + [
        "killall -q display osd"] + looked_up(*TFT) + ["./otg-switcher.php 9"]
    said = [line for line in console.daemon.errors().splitlines()
            if not line.startswith(OTHER_ERRORS)]
    assert said[-4:] == SAVED + not_found(*TFT)
    assert {"kill-cams.sh", "killall -q display osd"} <= set(log_lines(board))


def test_a_shorter_device_name_leaves_nothing_of_the_longer_one(board, start, make_client):
    console = Console(board, start("device_name=Tower camera\n"), make_client())
    console.send("app_type", "0", "Mast")
    assert console.daemon.wait_exit() == 1
    assert console.changes(EMPTY) == {"device_name": '"Mast"'}


MOVEMENTS = ";".join([",,,,,,,0,0,"] * 3)


def test_automovement_params_are_stored_and_saved(console):
    console.update("automovement", "params", "0", MOVEMENTS, "1", "6")
    assert console.commands == SAVE
    assert console.errors.count("Saving config") == 1
    assert console.changes(EMPTY) == {"automove_list": f'"{MOVEMENTS}"', "automove_smooth": "1",
                                      "automove_smooth_speed": "6"}
    console.update("automovement", "params", "1", "", "0", "0")
    assert console.changes(EMPTY) == {"automove_enabled": "1"}


def test_automovement_params_are_parsed_before_and_applied_after_the_save(board, console):
    console.update("automovement", "params", "0", MOVEMENTS, "1", "6")
    wanted = [f"Auto movement set list {MOVEMENTS}", "Added 3 movements:", "Saving config",
              "Auto movement stop"]
    assert [line for line in console.errors if line in wanted] == wanted
    assert board.path("/run/quillorbeacon/automovements_state").read_text() == "0"


@pytest.mark.parametrize("on, text", [("1", "Auto movement start"), ("0", "Auto movement stop")])
def test_automovement_setstate(board, console, on, text):
    console.update("automovement", "setstate", on)
    assert text in console.errors and "Saving config" not in console.errors
    assert board.path("/run/quillorbeacon/automovements_state").read_text() == on


def test_automovement_moves(console):
    console.update("automovement", "params", "0", MOVEMENTS, "0", "0")
    for values, number in [(("move", "1"), 2), (("movenext",), 3), (("movenext",), 1),
                           (("moveprev",), 3), (("moveprev",), 2)]:
        console.update("automovement", *values)
        assert f"Starting auto movement number {number}/3" in console.errors


@pytest.mark.parametrize("value", [None, "", "x", "0"])
def test_automovement_move_without_a_number_plays_the_first_movement(console, value):
    console.update("automovement", "params", "0", MOVEMENTS, "0", "0")
    console.update("automovement", "move", "2")
    console.update("automovement", "move", value)
    assert [line for line in console.errors if line.startswith("Starting auto movement")] == [
        "Starting auto movement number 1/3"]


@pytest.mark.parametrize("value", ["3", "-1"])
def test_automovement_move_to_no_movement_plays_none(console, value):
    console.update("automovement", "params", "0", MOVEMENTS, "0", "0")
    console.update("automovement", "move", value)
    assert console.errors == []
