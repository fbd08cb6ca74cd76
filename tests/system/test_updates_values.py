"""How values are parsed: missing ones, numbers, long texts, unknown and missing params."""

import json
from pathlib import Path

import pytest

from commands import BOOT_FILE, SAVE, Console, log_lines, parse_settings, update_text
from conftest import SANITIZERS, Producer, wait_until
from expected_file import ALL, file_text

EMPTY = parse_settings(file_text())
DEFAULT_MASK = "255.255.255.0"

# Every update that stores something: its sub-command, its numbers and its texts.
NUMBERS = {
    ("ethernet", None): ["eth_static_ip_enabled"],
    ("wlan", None): ["wifi_static_ip_enabled", "ap_mode", "ap_channel"],
    ("streaming", "udp"): ["stream_udp_enabled", "stream_udp_blocksize"],
    ("streaming", "rtmp"): ["stream_rtmp_enabled", "stream2_rtmp_enabled"],
    ("streaming", "rtsp"): ["rtsp_server_enabled"],
    ("streaming", "srt"): ["stream_srt_enabled"],
    ("recording", None): ["recording_enabled", "recording_place", "recording_gpio",
                          "recording_btn_gpio", "shot_btn_gpio"],
    ("transcoding", None): ["transcoding_enabled", "transcoding_bitrate", "resize_enabled",
                            "resize_width", "resize_height"],
    ("audio", None): ["audio_enabled", "audio_bitrate", "audio_dst", "audio_autogain",
                      "audio_volume"],
    ("display", "enabled"): ["display_enabled"],
    ("display", "hflip"): ["display_hflip"],
    ("display", "vflip"): ["display_vflip"],
    ("display", "aspect_ratio"): ["display_keep_aspect"],
    ("display", "smooth"): ["display_smooth"],
    ("display", "dualhdmi"): ["enable_second_hdmi"],
    ("tft_display", "enabled"): ["tft_display_enabled"],
    ("tft_display", "model"): ["tft_display_model"],
    ("osd", "enabled"): ["osd_enabled"],
    ("osd", "borders"): ["osd_borders"],
    ("internal_camera", None): ["internal_camera_enabled"],
    ("rc", None): ["rc_enabled"],
    ("gimbal", None): ["gimbal_movement_type", "rc_pan_smooth", "rc_tilt_smooth",
                       "rc_roll_smooth", "app_pan_smooth", "app_tilt_smooth", "app_roll_smooth"],
    ("fs_rw", None): ["fs_rw"],
    ("make_preview", None): ["make_preview"],
    ("automovement", "params"): ["automove_enabled", "automove_smooth", "automove_smooth_speed"],
    ("zerotier", "params"): ["zerotier_enabled", "zerotier_autojoin"],
}
TEXTS = {
    ("ethernet", None): {"eth_static_ip": "", "eth_static_mask": DEFAULT_MASK},
    ("wlan", None): {
        "camera_iface": "", "camera_ssid": '""', "camera_psk": '""', "wifi_iface": "",
        "wifi_ssid": '""', "wifi_psk": '""', "wifi_static_ip": "",
        "wifi_static_mask": DEFAULT_MASK, "ap_iface": "", "ap_ssid": '""', "ap_psk": '""',
        "ap_country": "", "system_country": ""},
    ("streaming", "udp"): {"stream_udp_clients": ""},
    ("streaming", "rtmp"): {"stream_rtmp_url": '""', "stream_rtmp_key": '""',
                            "stream2_rtmp_url": '""', "stream2_rtmp_key": '""'},
    ("streaming", "srt"): {"stream_srt_url": ""},
    ("internal_camera", None): {"internal_camera_params": '""'},
    ("rc", None): {"rc1_mode": "", "rc2_mode": ""},
    ("automovement", "params"): {"automove_list": '""'},
    ("zerotier", "params"): {"zerotier_netid": ""},
}
UPDATES = list(NUMBERS)


@pytest.fixture
def console(board, daemon, make_client):
    return Console(board, daemon, make_client())


@pytest.fixture
def full(board, start, make_client):
    """A daemon with every key set; its recording input is low, as `recording_enabled` says."""
    board.write("/run/gpio/204", "0")
    config = "".join(f"{key}={value}\n" for key, value in ALL.items())
    return Console(board, start(config, gpio=True), make_client())


def name_of(update):
    return " ".join(part for part in update if part)


@pytest.mark.parametrize("update", UPDATES, ids=name_of)
@pytest.mark.parametrize("kind", ["missing", "lists", "null"])
def test_missing_values_read_as_0_and_empty(full, update, kind):
    param, sub_command = update
    first = 1 if sub_command is None else 2
    names = ["value" if n == 1 else f"value{n}" for n in range(first, 17)]
    # These are no values.
    others = {"missing": {}, "lists": {name: ["1"] for name in names},
              "null": {name: None for name in names}}[kind]
    full.update(param, sub_command, **others)
    cleared = {**dict.fromkeys(NUMBERS[update], "0"), **TEXTS.get(update, {})}
    assert full.changes(parse_settings(file_text(**ALL))) == cleared


def test_app_type_without_values(full):
    full.send("app_type")
    assert full.daemon.wait_exit() == 1
    assert "otg-switcher.php 0" in log_lines(full.board)
    assert full.changes(parse_settings(file_text(**ALL))) == {"app_type": "0", "device_name": '""'}


@pytest.mark.parametrize("value, number", [
    ("2147483647", "2147483647"), ("2147483648", "2147483647"), ("99999999999", "2147483647"),
    ("-2147483648", "-2147483648"), ("-2147483649", "-2147483648"),
    ("-99999999999", "-2147483648"), ("9" * 40, "2147483647"), ("-" + "9" * 40, "-2147483648"),
    ("12abc", "12"), ("  7", "7"), ("+5", "5"), ("007", "7"), ("0x10", "0"), ("1.9", "1"),
    ("- 1", "0"), ("abc", "0"), ("\u0663", "0"),
])
def test_numbers(console, value, number):
    console.update("audio", value, value, value, value, value)
    keys = ["audio_enabled", "audio_bitrate", "audio_dst", "audio_autogain", "audio_volume"]
    saved = console.saved()
    assert [saved[key] for key in keys] == [number] * 5


@pytest.mark.parametrize("value, number, text", [
    ("1", "1", "1"), ("0", "0", "0"), ("true", "1", "1"), ("false", "0", "0"), ("-3", "-3", "-3"),
    ("1.50", "1", "1.50"), ("99999999999", "2147483647", "99999999999"),
    ("12345678901234567890", "2147483647", "12345678901234567890"), ("1e3", "1", "1e3"),
])
@pytest.mark.parametrize("blank", ["", "\t\n "])
def test_numbers_and_booleans_count_as_their_texts(console, value, number, text, blank):
    def send(members):
        named = [f'"{name}"{blank}:{blank}{each}{blank}' for name, each in members]
        console.send_text(b'{"cmd":"updateconfig",' + ",".join(named).encode() + b"}")
        return console.saved()

    assert send([("param", '"audio"'), ("value", value), ("value2", '"7"'),
                 ("value3", value)]).items() >= {
        "audio_enabled": number, "audio_bitrate": "7", "audio_dst": number}.items()
    # What comes before is passed over, whatever is in it.
    assert send([("name", '[{"a":1,"}":[2]},"\\\\",1]'), ('x\\"', "null"), ("param", '"streaming"'),
                 ("value", '"srt"'), ("value2", value), ("value3", value)]).items() >= {
        "stream_srt_enabled": number, "stream_srt_url": text}.items()


@pytest.mark.parametrize("value, byte", [
    ("255", "255"), ("256", "0"), ("300", "44"), ("-1", "255"), ("99999999999", "255"),
    ("-99999999999", "0"), ("513x", "1"),
])
def test_bytes_keep_the_low_eight_bits(console, value, byte):
    console.update("rc", value)
    assert console.saved()["rc_enabled"] == byte
    console.update("recording", "0", value)
    assert console.saved()["recording_place"] == byte
    console.update("wlan", **{"value14": value})
    assert console.saved()["wifi_static_ip_enabled"] == byte
    console.update("ethernet", value)
    assert console.saved()["eth_static_ip_enabled"] == byte
    # The stored byte decides.
    assert ("dhcpcd --rebind eth0" in console.commands) == (byte == "0")


@pytest.mark.parametrize("value, flag", [
    ("1", "1"), ("2", "1"), ("256", "1"), ("-1", "1"), ("0", "0"), ("", "0"), ("on", "0"),
    ("99999999999", "1")])
@pytest.mark.parametrize("key", ["fs_rw", "make_preview"])
def test_flags(console, key, value, flag):
    console.update(key, value)
    assert console.saved()[key] == flag


def test_other_numbers_are_no_flags(console):
    console.update("streaming", "rtsp", "3")
    console.update("transcoding", "-4")
    console.update("rec", "5")
    console.update("rc", "6")
    assert console.changes(EMPTY) == {"rtsp_server_enabled": "3", "transcoding_enabled": "-4",
                                      "recording_enabled": "5", "rc_enabled": "6"}


def test_texts_are_stored_as_they_come(console):
    console.update("wlan", "a b", ' "Caf\u00e9" \u2615', "p;w #1", "\\", "tab\there")
    assert console.changes(EMPTY) == {
        "camera_iface": "a b", "camera_ssid": '" "Caf\u00e9" \u2615"', "camera_psk": '"p;w #1"',
        "wifi_iface": "\\", "wifi_ssid": '"tab\there"', "wifi_static_mask": DEFAULT_MASK}


def test_a_mask_of_blanks_or_quotes_is_not_empty(console):
    console.update("ethernet", "0", "", " ")
    assert console.saved()["eth_static_mask"] == " "
    console.update("ethernet", "0", "", '""')
    assert console.saved()["eth_static_mask"] == '""'


def test_the_new_restream_list_replaces_the_old_one(board, console):
    receiver = board.socket(bind=("127.0.0.9", 5600))
    console.update("streaming", "udp", "1", "127.0.0.8:5600", "1000")
    console.update("streaming", "udp", "1", "127.0.0.9:5600", "1000")
    assert console.errors == ["", "Restreaming clients:", "\t0: 127.0.0.9:5600", "",
                              "Saving config"]
    Producer(board).publish(b"\0\0\0\1frame")
    assert receiver.recv(2000) == b"\0\0\0\1frame"


@pytest.mark.parametrize("port, arrives", [("70000", 4464), ("-1", 65535)])
def test_of_a_restream_port_the_low_16_bits_count(board, console, port, arrives):
    receiver = board.socket(bind=("127.0.0.9", arrives))
    console.update("streaming", "udp", "1", f"127.0.0.9:{port}", "1000")
    assert console.errors == ["", "Restreaming clients:", f"\t0: 127.0.0.9:{port}", "",
                              "Saving config"]
    Producer(board).publish(b"\0\0\0\1frame")
    assert receiver.recv(2000) == b"\0\0\0\1frame"


UNKNOWN = ["", "Ethernet", "ethernet ", "ethernet2", "ether", "record", "recordin", "streaming.udp",
           "%n%s", "tft", "zerotiers"]


@pytest.mark.parametrize("param", UNKNOWN)
def test_an_unknown_param_is_only_logged(board, console, param):
    text = update_text(param, "1", "1", "1")
    console.send_text(text)
    assert console.errors == [f"config_update: {text.decode()}"]
    assert console.commands == [] and console.tools == []
    assert not board.path(BOOT_FILE).exists()


@pytest.mark.parametrize("param, known", [
    ("streaming", "udp"), ("display", "hflip"), ("tft_display", "model"), ("osd", "enabled"),
    ("cvbs", "test"), ("hdmi", "testandsave"), ("automovement", "params"), ("zerotier", "clear")])
def test_an_unknown_sub_command_does_nothing(board, console, param, known):
    for sub_command in ("", "other", known.upper(), known + "x", known[:-1], " " + known):
        console.update(param, sub_command, "1", "1", "1")
        assert console.commands == [] and console.tools == [] and console.errors == []
    # As with a missing one, or one that is not a text.
    for members in ({}, {"value": 1, "value2": "1"}, {"value": None, "value2": "1"},
                    {"value": [known], "value2": "1"}):
        console.update(param, **members)
        assert console.commands == [] and console.errors == []
    assert not board.path(BOOT_FILE).exists()
    console.update("make_preview", "0")
    assert console.changes(EMPTY) == {}


@pytest.mark.parametrize("text", [
    b'{"cmd":"updateconfig"}', b'{"cmd":"updateconfig","value":"1","name":"rec"}',
    b'{"cmd":"updateconfig","param":["rec"]}', b'{"cmd":"updateconfig","param":null}'])
def test_a_command_without_param_ends_the_daemon_abnormally(console, text):
    console.client.send(text)
    assert console.daemon.wait_exit() == -6
    assert f"config_update: {text.decode()}\n" in console.daemon.errors()


def test_commands_of_the_data_source_are_carried_out_too(board, console):
    source = board.socket(bind=("127.0.0.60", 0))
    source.sendto(update_text("osd", "borders", "4"), ("127.0.0.1", 5000))
    wait_until(lambda: f"sh -c {SAVE[3]}" in log_lines(board), "the save")
    wait_until(lambda: console.boot_file() == file_text(osd_borders="4"), "the file")


def test_commands_are_carried_out_in_their_order(console):
    for number in range(20):
        console.send("osd", "borders", str(number))
    console.finish()
    console.update("make_preview", "1")
    assert console.changes(EMPTY) == {"osd_borders": "19", "make_preview": "1"}
    assert console.daemon.errors().count("Saving config\n") == 21


def test_the_log_line_has_the_text_as_it_was_sent(console):
    text = json.dumps({"cmd": "updateconfig", "param": "nothing", "value": "%d%n%s \\ \u00e9"})
    console.send_text(text.encode() + b"  ")
    assert console.errors == [f"config_update: {text}  "]


def test_values_may_come_in_any_order_and_with_other_members(console):
    console.send_text(b'{"value3":"1.2.3.4","x":[1,{}],"value2":"5.6.7.8","param":"ethernet",'
                      b'"value":"0","cmd":"updateconfig","value17":"9"}')
    assert console.changes(EMPTY) == {"eth_static_ip": "5.6.7.8", "eth_static_mask": "1.2.3.4"}


# Each is a tree of some 9000 parts, more than half a megabyte, from one datagram.
LARGE = {
    "update": b'{"cmd":"updateconfig","param":"nothing","x":[%s0]}' % (b"[]," * 9000),
    "unknown": b'{"cmd":"nothing","x":[%s0]}' % (b"[]," * 9000),
    "channels": b'{"cmd":"rc","param":"set-config","value":"0","value2":"[%s0]"}' % (b"{}," * 9000),
}
# The sanitizer's, which keeps freed memory for a while.
AT_ONCE = {"ASAN_OPTIONS": SANITIZERS["ASAN_OPTIONS"]
           + ":quarantine_size_mb=0:thread_local_quarantine_size_kb=0"}


@pytest.mark.parametrize("kind", LARGE)
def test_commands_leave_no_memory_behind(start, make_client, kind):
    daemon, client = start(env=AT_ONCE), make_client()

    def carry_out(count):
        for _ in range(count):
            client.send(LARGE[kind])
            client.ask_info()  # answered after the command is done
            client.receive(30.0)

    def used():
        status = Path(f"/proc/{daemon.pid}/status").read_text()
        return int(status.split("RssAnon:")[1].split()[0])

    carry_out(3)
    before = used()
    carry_out(20)
    assert used() - before < 2000, "kilobytes"
