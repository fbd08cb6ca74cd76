"""Every text setting: whatever a client puts in it changes that setting and nothing else."""

import pytest

from commands import Console, parse_settings
from expected_file import file_text

EMPTY = parse_settings(file_text())

# The updates that store texts: where each text comes from and its maximum length.
UPDATES = {
    "ethernet": (("ethernet",), {"value2": ("eth_static_ip", 19),
                                 "value3": ("eth_static_mask", 19)}),
    "wlan": (("wlan",), {
        "value": ("camera_iface", 9), "value2": ("camera_ssid", 39), "value3": ("camera_psk", 39),
        "value4": ("wifi_iface", 9), "value5": ("wifi_ssid", 39), "value6": ("wifi_psk", 39),
        "value7": ("ap_iface", 9), "value8": ("ap_ssid", 39), "value9": ("ap_psk", 39),
        "value12": ("ap_country", 4), "value13": ("system_country", 4),
        "value15": ("wifi_static_ip", 19), "value16": ("wifi_static_mask", 19)}),
    "udp": (("streaming", "udp"), {"value3": ("stream_udp_clients", 999)}),
    "rtmp": (("streaming", "rtmp"), {
        "value3": ("stream_rtmp_url", 999), "value4": ("stream_rtmp_key", 999),
        "value6": ("stream2_rtmp_url", 999), "value7": ("stream2_rtmp_key", 999)}),
    "srt": (("streaming", "srt"), {"value3": ("stream_srt_url", 999)}),
    "app_type": (("app_type",), {"value2": ("device_name", 39)}),
    "internal_camera": (("internal_camera",), {"value2": ("internal_camera_params", 99)}),
    "rc": (("rc",), {"value2": ("rc1_mode", 29), "value3": ("rc2_mode", 29)}),
    "automovement": (("automovement", "params"), {"value3": ("automove_list", 1199)}),
    "zerotier": (("zerotier", "params"), {"value4": ("zerotier_netid", 39)}),
}
SETTINGS = [(name, member) for name, (_, members) in UPDATES.items() for member in members]
QUOTED = """device_name ap_ssid ap_psk wifi_ssid wifi_psk camera_ssid camera_psk
    internal_camera_params stream_rtmp_url stream_rtmp_key stream2_rtmp_url stream2_rtmp_key
    automove_list""".split()
MASKS = {"ethernet": {"eth_static_mask": "255.255.255.0"},
         "wlan": {"wifi_static_mask": "255.255.255.0"}}

CAMERA = {"internal_camera": {"internal_camera_params": '""'}}


def in_file(key, text):
    return f'"{text}"' if key in QUOTED else text


def carry_out(console, name, members):
    words, _ = UPDATES[name]
    if name != "app_type":
        console.update(*words, **members)
        return
    console.send(*words, **members)
    assert console.daemon.wait_exit() == 1


@pytest.fixture
def console(board, daemon, make_client):
    return Console(board, daemon, make_client())


def check(console, name, member, text, stored):
    """Sends the text as this setting; checks that only it has changed, to `stored`."""
    key, _ = UPDATES[name][1][member]
    carry_out(console, name, {member: text})
    expected = {**EMPTY, **MASKS.get(name, {}), **CAMERA.get(name, {}), key: in_file(key, stored)}
    assert console.changes(expected) == {}, (key, text)


@pytest.mark.parametrize("name, member", SETTINGS)
def test_a_text_ends_at_its_first_line_end(console, name, member):
    key, _ = UPDATES[name][1][member]
    for end in ("\n", "\r\n", "\r")[:1 if name == "app_type" else 3]:
        check(console, name, member, f"abc{end}osd_borders=9{end}new_key=1{end}", "abc")
        lines = console.boot_file().split(b"\r\n")
        assert f"{key}={in_file(key, 'abc')}".encode() in lines
        assert len(lines) == file_text().count(b"\r\n") + 1


@pytest.mark.parametrize("name, member", SETTINGS)
def test_a_text_that_begins_with_a_line_end_is_empty(console, name, member):
    key, _ = UPDATES[name][1][member]
    default = MASKS.get(name, {}).get(key, "")
    check(console, name, member, "\nosd_borders=9", default)


TEXTS = ["%n%s%1000000d", "v" * 5000, "%s" * 2500, '"' * 50, "\u00e9" * 700, "a=b;c#d:[e]",
         "$(x)`y`'|&\\"]


@pytest.mark.parametrize("name, member", [each for each in SETTINGS if each[0] != "app_type"])
def test_a_text_changes_nothing_but_its_setting(console, name, member):
    _, size = UPDATES[name][1][member]
    for text in TEXTS:
        kept = text.encode()[:size].decode(errors="surrogateescape")
        check(console, name, member, text, kept)


@pytest.mark.parametrize("text", TEXTS)
def test_a_device_name_changes_nothing_but_itself(console, text):
    kept = text.encode()[:39].decode(errors="surrogateescape")
    check(console, "app_type", "value2", text, kept)


@pytest.mark.parametrize("name", UPDATES)
def test_all_texts_of_an_update_filled_at_once(console, name):
    members = UPDATES[name][1]
    letters = "abcdefghijklm"
    carry_out(console, name, {member: letter * 2000 for member, letter in zip(members, letters)})
    assert console.changes(EMPTY) == {
        key: in_file(key, letter * size)
        for (key, size), letter in zip(members.values(), letters)}


def test_camera_options_stay_as_they_are(console):
    options = """-w 1 -o '$(x)' "y" `z` | cat > /tmp/a & ; # \\ %s"""
    console.update("internal_camera", "0", options + "\n-n")
    assert console.changes(EMPTY) == {"internal_camera_params": f'"{options}"'}
    console.update("internal_camera", "0", "-" * 200)
    assert console.changes(EMPTY) == {"internal_camera_params": '"' + "-" * 99 + '"'}
    console.update("internal_camera", "0", "")
    assert console.changes(EMPTY) == {"internal_camera_params": '""'}


def test_nothing_is_left_of_a_longer_text(console):
    for text in ("long text of before", "short", ""):
        console.update("zerotier", "params", "0", "0", text)
        assert console.saved()["zerotier_netid"] == text
