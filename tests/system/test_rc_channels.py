"""Commands of radio control: channels requested, set, calibrated and saved."""

import json
import struct

import pytest

from commands import SAVE, hold, log_lines, release
from conftest import wait_until
from rc_reader import (BLOCK, CHANNEL_FORMAT, QUIET, SIZE, channel_list,  # noqa: F401 - fixtures
                       console, make_reader, rc_command, saved_channels, settings)
from test_dispatcher import expect_silence, reply

LIVE_KEYS = ["raw", "min", "max", "c", "i", "val", "d", "e", "l", "f"]


def test_channels_come_in_two_whole_replies(start, make_client, make_reader):
    start(settings(channel_list(*range(6, 9), d=12), channel_list(*[20] * 16, min=10000, max=60000,
                                                                  c=30000, l=100)))
    reader = make_reader()
    reader.set_raw(1, 1756)
    for channel in range(1, 17):
        reader.set_raw(channel, 15000, 1)
    reader.connect(0)
    reader.wait_value(20, -1.0)
    client = make_client()
    client.send(rc_command("get-channels"))
    first, second = reply(client), reply(client)
    expect_silence(client)
    assert first.startswith(b'{"cmd":"rc1","state":1,"ch":[{"raw":1756,"min":1000,"max":2000,'
                            b'"c":1500,"i":0,"val":0.500,"d":12,"e":1,"l":100,"f":6},')
    channel = (b'{"raw":15000,"min":10000,"max":60000,"c":30000,"i":0,"val":-0.750,"d":0,"e":1,'
               b'"l":100,"f":20}')
    assert second == b'{"cmd":"rc2","state":0,"ch":[' + b",".join([channel] * 16) + b"]}"
    for text in (first, second):
        channels = json.loads(text)["ch"]
        assert len(channels) == 16 and all(list(c) == LIVE_KEYS for c in channels)


def test_the_longest_channels(start, make_client, make_reader):
    start()
    reader = make_reader()
    reader.memory[16:1040] = struct.pack(CHANNEL_FORMAT, 0, *[65535] * 3, 255, -1.7e308, 255,
                                         65535, 65535, 255) * 32
    client = make_client()
    client.send(rc_command("get-channels"))
    for number in (b"1", b"2"):
        text = reply(client)
        assert text.startswith(b'{"cmd":"rc' + number) and len(text) > 16 * 380
        assert len(json.loads(text)["ch"]) == 16


@pytest.mark.parametrize("receiver", [0, 1])
def test_calibration(start, make_reader, console, receiver):
    daemon = start(QUIET)
    reader = make_reader()
    reader.connect(receiver)
    for channel in range(1, 17):
        reader.set_raw(channel, 1400 + channel, receiver)
        reader.set_raw(channel, 1300, 1 - receiver)
    control = console(daemon)
    name = f"RC{receiver + 1}"
    control.send_text(rc_command("calibrate-minmax", receiver))
    assert control.errors == [f"Set {name} state 2", f"{name} begin calibration min/max"]
    assert reader.state(receiver) == 2
    for channel in range(1, 17):
        assert reader.channel(channel, receiver)[1:4] == (1400 + channel,) * 3
        assert reader.channel(channel, 1 - receiver)[1:4] == (0, 0, 0)
    for raw, expected in [(2001, (1401, 2001, 1701)), (1000, (1000, 2001, 1500))]:
        reader.set_raw(1, raw, receiver)
        wait_until(lambda e=expected: reader.channel(1, receiver)[1:4] == e, f"{expected}")
    control.send_text(rc_command("finish-minmax", receiver))
    assert control.errors[:2] == [f"Set {name} state 3", f"{name} finish calibration min/max"]
    assert reader.state(receiver) == 1
    channels = saved_channels(control, receiver)
    assert channels[0] == {"ch": 1, "min": 1000, "max": 2001, "c": 1500, "i": 0, "e": 0, "d": 0,
                           "l": 100, "f": 0}
    assert [(c["min"], c["max"], c["c"]) for c in channels[1:]] == [
        (1400 + n,) * 3 for n in range(2, 17)]
    assert {(c["min"], c["max"], c["c"]) for c in saved_channels(control, 1 - receiver)} == {
        (0, 0, 0)}
    reader.set_raw(1, 2500, receiver)
    wait_until(lambda: reader.channel(1, receiver)[5] == 1.0, "a pass")
    assert reader.channel(1, receiver)[2] == 2001, "calibration is over"
    reader.set_raw(1, 1490, receiver)
    control.send_text(rc_command("set-center", receiver))
    assert control.errors[:2] == [f"Set {name} state 4", f"{name} calibration center"]
    assert reader.channel(1, receiver)[1:4] == (1000, 2001, 1490)
    assert saved_channels(control, receiver)[0]["c"] == 1490
    assert reader.channel(1, 1 - receiver)[3] == 0


@pytest.mark.parametrize("receiver", [0, 1])
def test_centring_takes_all_channels_and_ends_a_calibration(start, make_reader, console, receiver):
    daemon = start(QUIET)
    reader = make_reader()
    reader.connect(receiver)
    for channel in range(1, 17):
        reader.set_raw(channel, 1400 + channel, receiver)
    control = console(daemon)
    control.send_text(rc_command("calibrate-minmax", receiver))
    assert reader.state(receiver) == 2 and control.commands == []
    for channel in range(1, 17):
        reader.set_raw(channel, 1700 + channel, receiver)
    wait_until(lambda: reader.channel(16, receiver)[2] == 1716, "all widened")
    control.send_text(rc_command("set-center", receiver))
    assert reader.state(receiver) == 1 and control.commands == SAVE
    for channel in range(1, 17):
        reader.set_raw(channel, 1600 + channel, receiver)
    control.send_text(rc_command("set-center", receiver))
    centers = [1600 + channel for channel in range(1, 17)]
    assert [reader.channel(n, receiver)[3] for n in range(1, 17)] == centers
    assert [c["c"] for c in saved_channels(control, receiver)] == centers
    assert [c["c"] for c in saved_channels(control, 1 - receiver)] == [0] * 16


@pytest.mark.parametrize("receiver", [0, 1])
def test_centring_an_absent_receiver(start, make_reader, console, receiver):
    daemon = start(QUIET)
    reader = make_reader()
    reader.set_raw(16, 1234, receiver)
    control = console(daemon)
    assert reader.memory[:2] == b"\0\0"
    control.send_text(rc_command("set-center", receiver))
    assert (reader.state(receiver), reader.state(1 - receiver)) == (1, 0)
    assert saved_channels(control, receiver)[15]["c"] == 1234


@pytest.mark.parametrize("param", ["finish-minmax", "set-center"])
def test_channels_are_saved_before_the_state_is_set(board, start, make_reader, console, param):
    daemon = start(QUIET)
    reader = make_reader()
    reader.connect(0)
    control = console(daemon)
    control.send_text(rc_command("calibrate-minmax", 0))
    assert reader.state(0) == 2
    hold(board, "mount")
    control.client.send(rc_command(param, 0))
    wait_until(lambda: "mount -o rw,remount /boot" in log_lines(board), "the save")
    assert reader.state(0) == 2
    release(board, "mount")
    wait_until(lambda: reader.state(0) == 1, "the state")


@pytest.mark.parametrize("receiver", [0, 1])
def test_set_config(start, make_reader, console, receiver):
    daemon = start(QUIET)
    reader = make_reader()
    control = console(daemon)
    before = bytes(reader.memory[16:1040])
    control.send_text(rc_command("set-config", receiver, '[{"ch":3,"min":1000}]'))
    assert control.errors[0] == f'Set RC{receiver + 1} config: [{{"ch":3,"min":1000}}]'
    expected = bytearray(before)
    struct.pack_into("<H", expected, 32 * (2 + 16 * receiver) + 2, 1000)
    assert reader.memory[16:1040] == expected
    assert saved_channels(control, receiver)[2]["min"] == 1000
    assert saved_channels(control, 1 - receiver)[2]["min"] == 0
    whole = channel_list(*range(10, 26))
    control.send_text(rc_command("set-config", receiver, whole))
    assert saved_channels(control, receiver) == json.loads(whole)
    for text in ("", "[", "[]", '[{"min":5}]', '[{"ch":17,"min":5}]', "null"):
        control.send_text(rc_command("set-config", receiver, text))
        assert saved_channels(control, receiver) == json.loads(whole)


@pytest.mark.parametrize("param", ["calibrate-minmax", "finish-minmax", "set-center", "set-config"])
def test_a_command_without_a_receiver_changes_nothing(start, make_reader, console, param):
    daemon = start(settings(channel_list(20)))
    reader = make_reader()
    reader.connect(0)
    for channel in range(1, 17):
        reader.set_raw(channel, 1600)
    reader.wait_value(20, 0.2)
    control = console(daemon)
    before = bytes(reader.memory[16:1040])
    for value in ("", ',"value":""', ',"value":"x0"', ',"value":null', ',"value":[0]', ',"value":"- 1"'):
        control.send_text(f'{{"cmd":"rc","param":"{param}","value2":"[]"{value}}}'.encode())
        assert control.errors == [f"RC command {param} names no receiver, nothing is changed"]
        assert control.commands == []
    assert reader.memory[16:1040] == before and reader.state(0) == 1
    # A number that is no text is one all the same.
    for value in ("0", "false", '" 0"'):
        control.send_text(f'{{"cmd":"rc","param":"{param}","value2":"[]","value":{value}}}'.encode())
        assert control.errors[0].startswith("Set RC1 ")


def test_texts_of_digits_are_numbers_of_a_channel(start, make_reader, console):
    daemon = start(QUIET)
    reader = make_reader()
    control = console(daemon)
    whole = channel_list(*range(10, 26), i=1, d=7)
    texts = json.dumps([{key: str(value) for key, value in each.items()}
                        for each in json.loads(whole)])
    control.send_text(rc_command("set-config", 1, texts))
    assert saved_channels(control, 1) == json.loads(whole)
    assert len(control.errors) == 2  # the command and the save
    control.send_text(rc_command("set-config", 1, '[{"ch":"016","min":"99999999999","i":true}]'))
    assert reader.channel(16, 1)[1:5] == (65535, 2000, 1500, 1)


def test_other_values_leave_a_channel_alone(start, make_reader, console):
    daemon = start(QUIET)
    reader = make_reader()
    control = console(daemon)
    whole = channel_list(*range(10, 26))
    control.send_text(rc_command("set-config", 0, whole))
    for count, text in [
            (1, '[{"ch":1,"min":null}]'), (1, '[{"ch":1,"min":""}]'), (1, '[{"ch":1,"c":"12x"}]'),
            (1, '[{"ch":1,"c":"-5"}]'), (1, '[{"ch":1,"c":" 5"}]'), (1, '[{"ch":1,"max":[5]}]'),
            (1, '[{"ch":1,"i":{"i":1}}]'), (1, '[{"ch":null,"min":5}]'), (1, '[{"ch":"x","min":5}]'),
            (3, '[{"ch":1,"e":"yes","f":null},{"ch":2,"l":"100 %"}]')]:
        control.send_text(rc_command("set-config", 0, text))
        assert control.errors == [
            f"Set RC1 config: {text}",
            f"RC1 channel list: ignored {count} value(s) that are not numbers", "Saving config"]
        assert saved_channels(control, 0) == json.loads(whole)
    control.send_text(rc_command("set-config", 0, '[{"ch":1,"min":null,"max":1900}]'))
    assert reader.channel(1)[1:3] == (1000, 1900)


def test_the_saved_line(start, console):
    control = console(start(QUIET))
    control.send_text(rc_command("set-config", 1, '[{"ch":16,"f":45}]'))
    empty = '{{"ch":{},"min":0,"max":0,"c":0,"i":0,"e":0,"d":0,"l":0,"f":{}}}'
    lines = control.boot_file().decode().split("\r\n")
    for name, last in (("rc1", 0), ("rc2", 45)):
        objects = [empty.format(n, last if n == 16 else 0) for n in range(1, 17)]
        assert f"{name}_channels=[{','.join(objects)}]" in lines


def test_other_receivers(start, make_reader, console):
    daemon = start(QUIET)
    reader = make_reader()
    reader.set_raw(1, 1500)
    control = console(daemon)
    wait_until(lambda: reader.channel(1)[8] == 100, "a pass")
    before = bytes(reader.memory[:1040])
    for receiver, number in ((2, 3), (-1, 0), (2147483647, -2147483648), (1000000, 1000001)):
        for param, state, what in (("calibrate-minmax", 2, "begin calibration min/max"),
                                   ("finish-minmax", 3, "finish calibration min/max"),
                                   ("set-center", 4, "calibration center")):
            control.send_text(rc_command(param, receiver))
            saves = [] if state == 2 else ["Saving config"]
            assert control.errors == [f"Set RC{number} state {state}", f"RC{number} {what}", *saves]
            assert control.commands == (SAVE if saves else [])
        control.send_text(rc_command("set-config", receiver, '[{"ch":1,"min":9}]'))
        assert control.errors == [f'Set RC{number} config: [{{"ch":1,"min":9}}]']
        assert control.commands == []
    assert reader.memory[:1040] == before


def test_a_board_without_rc(board, start, console, make_client):
    daemon = start(QUIET + "rc1_channels=[]\n", model="Raspberry Pi Zero 2")
    client = make_client()
    client.send(rc_command("get-channels"))
    assert reply(client) == b'{"cmd":"rc1","state":0,"ch":}'
    assert reply(client) == b'{"cmd":"rc2","state":0,"ch":}'
    control = console(daemon)
    not_saved = "RC channels are not saved: this slow board runs no radio control"
    for receiver in (0, 1, 2):
        for param in ("calibrate-minmax", "finish-minmax", "set-center", "set-config", "nothing"):
            control.send_text(rc_command(param, receiver, '[{"ch":1,"min":5}]'))
            tries_to_save = param in ("finish-minmax", "set-center") or (
                param == "set-config" and receiver < 2)
            assert control.errors.count(not_saved) == tries_to_save, param
            assert not tries_to_save or control.errors[-1] == not_saved
            assert control.commands == []
    client.send(struct.pack("<BBhhh", 5, 0, 32767, -32767, 0))
    expect_silence(client)
    assert daemon.errors().count("Failed to get shared RC buffer\n") == 2
    assert "Init RC" not in daemon.errors()
    assert not board.path("/run/quillorbeacon/smooth_ptd_app_values").exists()
    assert board.path(BLOCK).read_bytes() == bytes(SIZE)
