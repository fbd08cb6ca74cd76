"""beaconctl set keeps what it should: values that nobody confirms go back, and so do bytes."""

import json
import subprocess

import pytest

from beaconctl import LIMIT, Ctl
from commands import BOOT_FILE, parse_settings

QUIET = "recording_place=2\n"
TAKEN_BACK = "beaconctl: not confirmed: the old values are back\n"


@pytest.fixture
def ctl(board):
    return Ctl(board)


MANY = {
    "wifi": {"ap_ssid": "New"},
    "camera": {"camera_params": "-n"},
    "display": {"hflip": 1, "vflip": 1, "daspect": 1, "dsmooth": 1, "osd": 1, "osd_borders": 1},
    "streaming": {"udp_blocksize": 1400, "rtmp_url": "a", "srt_url": "b"},
    "video": {"transcoding_bitrate": 100, "audio_volume": 5},
    "gimbal": {"app_pan": 1},
    "automovement": {"smooth_speed": 5},
    "zerotier": {"netid": "a"},
    "system": {"make_preview": 1},
}


def test_however_many_values_are_taken_back(board, ctl, start):
    daemon = start(QUIET + "wifi_static_mask=255.255.255.0\n")
    before = ctl("get", "--all", "--json").stdout
    board.write("/tmp/new.json", json.dumps(MANY))
    process = ctl.start("set", "--from", "/tmp/new.json", "--yes", "--force", "--revert-after", "0.1",
                        text=True)
    _, told = process.communicate(timeout=4 * LIMIT)  # for 34 commands and more questions
    assert (process.returncode, told) == (1, TAKEN_BACK)
    assert ctl("get", "--all", "--json").stdout == before
    assert daemon.errors().count("config_update") == 2 * 17


def test_a_change_that_ends_the_daemon_is_taken_back_once(board, ctl, start):
    daemon = start(QUIET)
    process = ctl.start("set", "app_type", "app_type=9", "--yes", "--revert-after", "0.1", text=True)
    assert daemon.wait_exit(30.0) == 1
    second = start(None, ready=False)  # as its supervisor does
    assert second.wait_exit(30.0) == 1
    silent = board.socket(bind=("0.0.0.0", 5252), timeout=20.0)
    for _ in range(4):
        assert b"config_request" in silent.recv(2000)
    silent.close()
    third = start(None)
    _, told = process.communicate(timeout=LIMIT)
    assert (process.returncode, told) == (1, TAKEN_BACK)
    assert "config_update" not in third.errors()
    assert json.loads(ctl("get", "info", "--json").stdout)["app_type"] == 0


def test_values_are_taken_back_when_there_is_a_way_again(board, ctl, start):
    start(QUIET)
    terminal = ctl.at_terminal("set", "wlan", "ap_ssid=New", "--yes", "--revert-after", "1000")
    terminal.expect("or it is taken back: ")
    board.run("/usr/sbin/ip", "address", "del", "127.0.0.1/8", "dev", "lo")
    terminal.interrupt()
    with pytest.raises(subprocess.TimeoutExpired):
        terminal.process.wait(1.5)
    board.run("/usr/sbin/ip", "address", "add", "127.0.0.1/8", "dev", "lo")
    code, shown = terminal.end()
    assert code == 1 and shown.endswith(TAKEN_BACK.replace("\n", "\r\n"))
    assert ctl("get", "ap_ssid").stdout == "\n"


LOST = ("beaconctl: wifi_ssid has bytes that are not UTF-8, which would be lost: give its value too; "
        "--force sends it all the same\n")


def test_bytes_that_are_not_utf8_are_not_replaced(board, ctl, start):
    daemon = start((QUIET + 'wifi_ssid="Caf\xe9"\nwifi_iface=int\n').encode("latin-1"))
    saved = ctl("get", "--all", "--json").stdout
    board.write("/tmp/backup.json", saved.replace('"ap_channel":0', '"ap_channel":11'))
    for words in (["wlan", "ap_channel=11"], ["--from", "/tmp/backup.json"]):
        done = ctl("set", *words, "--yes")
        assert (done.returncode, done.stderr) == (1, LOST), words
    done = ctl("set", "wlan", "wifi_ssid=Cafe", "--yes", "--revert-after", "1000")
    assert (done.returncode, done.stderr) == (
        1, "beaconctl: wifi_ssid has bytes that are not UTF-8, so it cannot be taken back; "
           "--force sends it all the same\n")
    assert "config_update" not in daemon.errors()
    done = ctl("set", "wlan", "wifi_ssid=Caf\u00e9", "ap_channel=11", "--yes")
    assert (done.returncode, done.stderr) == (0, "")
    assert parse_settings(board.path(BOOT_FILE).read_bytes())["wifi_ssid"] == '"Caf\u00e9"'
