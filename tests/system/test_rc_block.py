"""The shared radio-control block: created, opened, not mappable for a while, and truncated."""

import json
import os
import struct
import time

import pytest

from conftest import is_status, wait_until
from rc_reader import (BLOCK, CHANNEL_FORMAT, SIZE, channel_list, console,  # noqa: F401 - fixtures
                       make_reader, rc_command, saved_channels, settings)
from test_dispatcher import reply, said
from test_startup import startup_lines


# Start-up and the block.

@pytest.mark.parametrize("exists", [False, True])
def test_messages_and_their_place(board, start, exists):
    if exists:
        board.write(BLOCK, bytes(SIZE))
    daemon = start()
    opened = "Shared raw RC mem opened" if exists else "Creating new shared raw RC"
    lines = startup_lines(daemon)
    assert lines[2:7] == ["Board model: ", "Init RC", opened, "Init RC done", "Init UDP server"]
    assert board.path(BLOCK).stat().st_size == SIZE


def test_an_existing_block_keeps_raw_values_and_gets_the_stored_calibration(board, start,
                                                                            make_reader):
    block = bytearray(SIZE)
    for index in range(32):
        struct.pack_into(CHANNEL_FORMAT, block, 16 + 32 * index,
                         1200 + index if index % 2 else 0, 1, 2, 3, 4, 0.5, 6, 7, 8, 9)
    block[1040:1408] = struct.pack("<46d", *[0.25] * 46)
    board.write(BLOCK, bytes(block))
    start(settings('[{"ch":3,"min":1100,"f":20}]', '[{"ch":16,"max":1900,"d":5,"e":1}]'))
    reader = make_reader()
    wait_until(lambda: reader.channel(16, 1)[5] != 0.0, "a pass with the stored calibration")
    assert reader.raw_value(0) == 1200 + 31
    for index in range(32):
        raw = 1200 + index if index % 2 else 0
        expected = [raw, 0, 0, 0, 0, 0.0, 0, 0, 100 if raw else 0, 0]
        if index == 2:
            expected[1], expected[6] = 1100, 20
        if index == 31:
            expected[2], expected[7], expected[9] = 1900, 5, 1
            expected[5] = 1226 / 1895
        got = reader.channel(index % 16 + 1, index // 16)
        assert got == pytest.approx(tuple(expected)), index
    assert reader.value(0) == 0.0
    assert all(reader.value(function) == 0.0 for function in range(46))


# A block that cannot be mapped.

@pytest.fixture
def unmappable(board, start):
    """unmappable(config): a daemon that finds a folder where the block should be."""

    def run(config):
        board.path(BLOCK).mkdir()
        return start(config)

    return run


FAILED_TRY = ["Creating new shared raw RC",
              "Shared memory /shared_rc_raw: shm_open failed: Invalid argument"]
TRIES = ("Creating new shared raw RC", "Shared raw RC", "Shared memory /shared_rc_raw",
         "Failed to open raw RC", "Failed to get shared RC")


def gimbal_texts(board):
    files = [board.path(f"/run/quillorbeacon/smooth_ptd_{name}_values")
             for name in ("app", "rc", "total")]
    return [file.read_text() if file.exists() else None for file in files]


def test_a_block_that_cannot_be_mapped_until_later(board, unmappable, console, make_client,
                                                   make_reader):
    daemon = unmappable(settings(channel_list(2), channel_list(3, min=1111)))
    assert said(daemon, "Init RC", *TRIES)[:7] == [
        "Init RC", *FAILED_TRY, "Failed to open raw RC shared memory", "Init RC done",
        *["Failed to get shared RC buffer"] * 2]
    # The loop and the status monitor keep trying once a second, without another word.
    wait_until(lambda: daemon.errors().count(FAILED_TRY[1]) == 2, "both have tried")

    client = make_client()
    client.send(rc_command("get-channels"))
    assert reply(client) == b'{"cmd":"rc1","state":0,"ch":}'
    assert reply(client) == b'{"cmd":"rc2","state":0,"ch":}'
    control = console(daemon)
    for receiver in (0, 1, 2):
        for param in ("calibrate-minmax", "finish-minmax", "set-center", "set-config"):
            control.send_text(rc_command(param, receiver, '[{"ch":1,"min":5}]'))
            assert control.commands == [], "nothing to save"
    for pan, text in ((32767, "1.000000,0.000000,0.000000"), (0, "0.000000,0.000000,0.000000"),
                      (-32767, "-1.000000,0.000000,0.000000")):
        client.send(struct.pack("<BBhhh", 5, 0, pan, 0, 0))
        wait_until(lambda t=text: gimbal_texts(board) == [t, "0.000000,0.000000,0.000000", t], text)

    board.path(BLOCK).rmdir()
    reader = make_reader()
    wait_until(lambda: reader.channel(1, 1)[1] == 1111, "the stored channels of the absent RC2")
    assert reader.channel(1, 0)[1:4] == (1000, 2000, 1500) and reader.channel(1, 0)[6] == 2
    reader.wait_value(2, -1.0)
    reader.connect(0)
    daemon.wait_error("RC1 found\n")
    reader.move(1, 0.5)
    reader.wait_value(2, -0.5)
    wait_until(lambda: gimbal_texts(board)[1:] == ["0.500000,0.000000,0.000000",
                                                   "-0.500000,0.000000,0.000000"], "the sums")
    display = make_client("127.0.0.1", 5253)
    wait_until(lambda: [p[2][15:17] for p in [display.receive_any()] if is_status(p)] == [b"\1\0"],
               "the status record")
    client.send(rc_command("get-channels"))
    assert reply(client).startswith(b'{"cmd":"rc1","state":1,"ch":[{"raw":1750,"min":1000,')
    assert reply(client).startswith(b'{"cmd":"rc2","state":0,"ch":[{"raw":0,"min":1111,')
    daemon.wait_error("Shared memory /shared_rc_raw: mapped now\n", 2)


@pytest.mark.parametrize("receiver", [0, 1])
def test_a_save_after_a_late_mapping_keeps_the_stored_channels(board, unmappable, console,
                                                               make_reader, receiver):
    lists = [channel_list(*range(10, 26)), channel_list(*range(20, 36), min=1111)]
    daemon = unmappable(settings(*lists))
    board.path(BLOCK).rmdir()
    reader = make_reader()
    wait_until(lambda: reader.channel(16, 1)[1] == 1111, "the stored channels")
    control = console(daemon)

    # The channels are in the block a moment before commands may use it.
    def is_saved():
        control.send_text(rc_command("set-config", receiver, '[{"ch":3,"min":1234}]'))
        return control.commands != []

    wait_until(is_saved, "a save")
    expected = [json.loads(text) for text in lists]
    expected[receiver][2]["min"] = 1234
    assert [saved_channels(control, each) for each in (0, 1)] == expected


def test_a_late_mapping_clears_what_another_program_left_there(board, start, make_reader):
    board.path(BLOCK).symlink_to("nowhere")  # cannot be opened, can be replaced atomically
    start(settings("", '[{"ch":16,"max":1900}]'))
    block = bytearray(SIZE)
    for index in range(32):
        struct.pack_into(CHANNEL_FORMAT, block, 16 + 32 * index, 0, 1, 2, 3, 4, 0.5, 6, 7, 8, 9)
    block[1040:1408] = struct.pack("<46d", *[0.25] * 46)
    board.write("/dev/shm/prepared", bytes(block)).rename(board.path(BLOCK))
    reader = make_reader()
    wait_until(lambda: reader.channel(16, 1)[2] == 1900, "the stored channel")
    empty = (0, 0, 0, 0, 0, 0.0, 0, 0, 0, 0)
    assert [reader.channel(n, r) for r in (0, 1) for n in range(1, 17)] == [
        *[empty] * 31, (0, 0, 1900, *empty[3:])]
    wait_until(lambda: all(reader.value(f) == 0.0 for f in range(46)), "the values of a pass")


# A block that another program truncates.

def test_a_block_that_is_cut_short(board, start, console, make_client, make_reader):
    daemon = start(settings(channel_list(2)))
    client = make_client()
    client.send(rc_command("get-channels"))  # the dispatcher has its own mapping
    assert b'"min":1000,"max":2000,' in reply(client)
    reply(client)
    for count in (1, 2, 3):
        # The test itself must not read it now: the SIGBUS would kill it.
        os.truncate(board.path(BLOCK), 0)
        daemon.wait_error("Shared memory /shared_rc_raw was truncated by another program; "
                          "restored, filled with zeros\n", count)
        wait_until(lambda: board.path(BLOCK).stat().st_size == SIZE, "its size")
    client.send(rc_command("get-channels"))
    assert b'"min":0,"max":0,' in reply(client)
    reply(client)
    console(daemon).send_text(rc_command("set-config", 0, channel_list(2)))
    reader = make_reader()
    reader.connect(0)
    reader.move(1, 0.5)
    reader.wait_value(2, 0.5)
