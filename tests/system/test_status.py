"""The status record: how often it is sent, who gets it, and every byte but the movement's."""

import os
import time

import pytest

from conftest import is_status, wait_until

# Nothing to mount, and no messages about storage: the poller runs at its own pace.
QUIET = "recording_place=2\n"
RUN = "/run/quillorbeacon"
RC_BLOCK = "/dev/shm/shared_rc_raw"
RC_BLOCK_SIZE = 1504


def next_record(client):
    """The next status record that the client gets."""
    while True:
        packet = client.receive_any()
        if is_status(packet):
            return packet[2]


def wait_record(client, condition, what):
    """Reads until a status record satisfies condition(record), and returns that record."""
    return wait_until(lambda: next((r for r in [next_record(client)] if condition(r)), None), what)


def number_at(record, offset):
    return int.from_bytes(record[offset:offset + 4], "little")


def replace(board, path, content):
    """Replaces the file atomically: a reader sees the old or the new content."""
    fresh = board.write(f"{path}.new", content)
    os.replace(fresh, board.path(path))


@pytest.fixture
def viewer(make_client):
    """viewer(): the display process, which gets a copy of each status record."""
    return lambda: make_client("127.0.0.1", 5253)


def test_the_record_of_an_idle_board(start, viewer):
    display = viewer()
    start(QUIET)
    record = next_record(display)
    assert len(record) == 41
    assert record[:19] == b"\4" + bytes(18)
    assert record[19:22] == bytes([0, 8, 19])
    assert record[22:35] == b"\2" + bytes(12)
    assert record[39:] == b"\0\0"


def test_about_ten_times_a_second(start, viewer):
    display = viewer()
    start(QUIET)
    next_record(display)
    begin = time.monotonic()
    count = 0
    while time.monotonic() < begin + 3:
        next_record(display)
        count += 1
    assert 15 <= count <= 33


def test_examined_storage_slows_the_record_down_only(start, viewer):
    display = viewer()
    start("recording_place=0\n")
    next_record(display)
    begin = time.monotonic()
    for _ in range(10):
        next_record(display)
    assert 0.9 <= time.monotonic() - begin < 10


def test_all_clients_and_the_display_get_each_record(start, viewer, registered_client):
    display = viewer()
    daemon = start(QUIET)
    clients = [registered_client(daemon, "127.0.0.2"),
               registered_client(daemon, "127.0.0.3", mode=b"\1")]
    first = [client.receive_any() for client in clients]
    last = max(first, key=lambda packet: packet[1])
    for client, packet in zip(clients, first):
        while packet[1] != last[1]:
            packet = client.receive_any()
        assert packet == last
    copy = display.receive_any()
    while copy[1] != last[1]:
        copy = display.receive_any()
    assert copy == last
    following = [receiver.receive_any() for receiver in (*clients, display)]
    assert following[0] == following[1] == following[2] and is_status(following[0])


@pytest.mark.parametrize("setting, expected", [("7", 7), ("255", 255), ("258", 2), ("-1", 255)])
def test_kind_of_camera(start, viewer, setting, expected):
    display = viewer()
    start(QUIET + f"app_type={setting}\n")
    assert next_record(display)[1] == expected


def test_client_count(start, viewer, registered_client):
    display = viewer()
    daemon = start(QUIET)
    assert next_record(display)[3] == 0
    first = registered_client(daemon, "127.0.0.2")
    wait_record(display, lambda record: record[3] == 1, "one client")
    registered_client(daemon, "127.0.0.3", mode=b"\1")
    wait_record(display, lambda record: record[3] == 2, "two clients")
    first.remove()
    wait_record(display, lambda record: record[3] == 1, "one client left")


INTERFACES = "wifi_iface={}\ncamera_iface={}\n"


@pytest.mark.parametrize("wifi, camera, markers, flags", [
    ("int", "ext", [], 0),
    ("int", "ext", ["ap.active"], 1),
    ("int", "ext", ["wifi0.connected"], 2),
    ("int", "ext", ["wlan0.connected"], 4),
    ("int", "ext", ["ap.active", "wifi0.connected", "wlan0.connected"], 7),
    ("int", "ext", [".connected", "int.connected", "ext.connected"], 0),
    ("ext", "int", ["wlan0.connected"], 2),
    ("ext", "int", ["wifi0.connected"], 4),
    ("int", "int", ["wifi0.connected"], 6),
    ("ext", "ext", ["wifi0.connected"], 0),
    ("", "", [".connected"], 6),
    ("", "", ["wifi0.connected", "wlan0.connected"], 0),
    ("eth0", "int", [".connected"], 2),
    ("int", "wlan0", [".connected"], 4),
])
def test_network_flags(board, start, viewer, wifi, camera, markers, flags):
    display = viewer()
    for marker in markers:
        board.write(f"{RUN}/{marker}", "")
    start(QUIET + INTERFACES.format(wifi, camera))
    assert next_record(display)[4] == flags


def test_interfaces_that_are_not_set(board, start, viewer):
    display = viewer()
    board.write(f"{RUN}/.connected", "")
    start(QUIET)
    assert next_record(display)[4] == 6


def test_network_flags_follow_the_markers(board, start, viewer):
    display = viewer()
    start(QUIET + INTERFACES.format("int", "ext"))
    assert next_record(display)[4] == 0
    for marker, flag in (("ap.active", 1), ("wifi0.connected", 2), ("wlan0.connected", 4)):
        board.path(f"{RUN}/{marker}").mkdir()  # any kind of file counts
        wait_record(display, lambda record: record[4] == flag, f"{marker} seen")
        board.path(f"{RUN}/{marker}").rmdir()
        wait_record(display, lambda record: record[4] == 0, f"{marker} gone")


def presence(record):
    return record[5], record[39], record[40]


@pytest.mark.parametrize("source, expected", [("data", (1, 1, 0)), ("video", (1, 0, 1))])
def test_presence_of_one_source(board, start, viewer, make_producer, source, expected):
    display = viewer()
    start(QUIET)
    assert presence(next_record(display)) == (0, 0, 0)
    if source == "data":
        board.socket().sendto(b"x", ("127.0.0.1", 5000))
    else:
        make_producer().publish(b"frame")
    changed = wait_record(display, lambda r: presence(r) != (0, 0, 0), "the source found")
    assert presence(changed) == expected
    changed = wait_record(display, lambda r: presence(r) != expected, "the source lost")
    assert presence(changed) == (0, 0, 0)


def test_data_and_video_presence(board, start, viewer, make_producer):
    display = viewer()
    start(QUIET)
    producer = make_producer()
    source = board.socket()

    def is_complete(record):
        source.sendto(b"x", ("127.0.0.1", 5000))
        producer.publish(b"frame")
        return presence(record) == (1, 1, 1)

    wait_record(display, is_complete, "both sources")


def test_the_inputs_are_looked_at_before_the_first_record(board, start, viewer):
    display = viewer()
    board.write("/run/gpio/4", "0")
    start(QUIET + "recording_gpio=4\n", gpio=True)
    assert next_record(display)[6] == 1


@pytest.mark.parametrize("settings, flags", [
    ({"recording_enabled": 1}, 1),
    ({"stream_udp_enabled": 1}, 2),
    ({"stream_rtmp_enabled": 1}, 4),
    ({"stream2_rtmp_enabled": 1}, 4),
    ({"stream_rtmp_enabled": 1, "stream2_rtmp_enabled": 1}, 4),
    ({"stream_srt_enabled": 1}, 8),
    ({"rtsp_server_enabled": 1}, 16),
    ({"recording_enabled": 2, "stream_udp_enabled": 2, "stream_rtmp_enabled": 2,
      "stream2_rtmp_enabled": 2, "stream_srt_enabled": 2, "rtsp_server_enabled": 2}, 0),
    ({"stream_rtmp_enabled": 2, "stream2_rtmp_enabled": 1}, 4),
    ({"recording_enabled": 3, "stream_udp_enabled": 5, "stream_rtmp_enabled": 7,
      "stream2_rtmp_enabled": 2, "stream_srt_enabled": -1, "rtsp_server_enabled": 9}, 31),
])
def test_service_flags_are_low_bits(start, viewer, settings, flags):
    display = viewer()
    start(QUIET + "".join(f"{key}={value}\n" for key, value in settings.items()))
    assert next_record(display)[6] == flags


@pytest.mark.parametrize("path, offset", [
    (f"{RUN}/rtmp-streamer.info", 7), (f"{RUN}/recorder.info", 11), (f"{RUN}/rtsp-server.info", 31),
])
def test_numbers_in_files(board, start, viewer, path, offset):
    display = viewer()
    start(QUIET)
    record = next_record(display)
    assert number_at(record, offset) == 0
    for text, expected in [
            (b"0", 0), (b"42\n", 42), (b" \t+7 frames", 7), (b"-5", 2**32 - 5), (b"garbage", 0),
            (b"", 0), (b"0x1f", 0), (b"010", 10), (b"16909060", 0x01020304),
            (b"99999999999", 2**31 - 1), (b"0" * 99 + b"123", 1), (b"0" * 100 + b"9", 0),
            (b" " * 100 + b"9", 0), (b"12\x003", 12)]:
        replace(board, path, "777")
        wait_record(display, lambda r: number_at(r, offset) == 777, "a number that is told apart")
        replace(board, path, text)
        changed = wait_record(display, lambda r: number_at(r, offset) != 777, f"{text} read")
        assert number_at(changed, offset) == expected, text
        assert not any(number_at(changed, at) for at in (7, 11, 27, 31) if at != offset)
    replace(board, path, "777")
    wait_record(display, lambda r: number_at(r, offset) == 777, "a number that is told apart")
    board.path(path).unlink()
    changed = wait_record(display, lambda r: number_at(r, offset) != 777, "the file gone")
    assert number_at(changed, offset) == 0


SRT_STAMP = "/tmp/srt-client-connect-timestamp"


@pytest.mark.parametrize("age", [1, 100, 70000, -1000])
def test_seconds_since_the_srt_client_connected(board, start, viewer, age):
    display = viewer()
    begin = int(time.time())
    board.write(SRT_STAMP, f"{begin - age}\n")
    start(QUIET)
    seconds = number_at(next_record(display), 27)
    # A time in the future gives a negative age, as 32 bits.
    assert 0 <= (seconds - age) % 2**32 <= int(time.time()) - begin


def test_a_stamp_from_after_2038(board, start, viewer):
    display = viewer()
    now = int(time.time())
    board.write(SRT_STAMP, f"{2**32 + now - 500}\n")
    start(QUIET)
    seconds = number_at(next_record(display), 27)
    assert 0 <= seconds - 500 <= int(time.time()) - now


def test_seconds_since_the_srt_client_connected_go_on(board, start, viewer):
    display = viewer()
    board.write(SRT_STAMP, f"{int(time.time()) - 1000}")
    start(QUIET)
    seconds = number_at(next_record(display), 27)
    wait_record(display, lambda r: number_at(r, 27) == seconds + 2, "two seconds more")


@pytest.mark.parametrize("content", [None, "0", "", "soon"])
def test_no_srt_client(board, start, viewer, content):
    display = viewer()
    start(QUIET)
    replace(board, SRT_STAMP, str(int(time.time()) - 5000))
    wait_record(display, lambda r: number_at(r, 27) >= 5000, "the stamp seen")
    if content is None:
        board.path(SRT_STAMP).unlink()
    else:
        replace(board, SRT_STAMP, content)
    changed = wait_record(display, lambda r: not 5000 <= number_at(r, 27) < 6000, "no stamp")
    assert number_at(changed, 27) == 0


@pytest.mark.parametrize("has_writer", [False, True])
@pytest.mark.parametrize("path, offset", [(SRT_STAMP, 27), (f"{RUN}/recorder.info", 11)])
def test_nobody_waits_for_the_writer_of_a_fifo(board, start, viewer, path, offset, has_writer):
    display = viewer()
    start(QUIET)
    replace(board, path, "777")
    wait_record(display, lambda r: number_at(r, offset) != 0, "a number that is told apart")
    fifo = board.path(f"{path}.new")
    os.mkfifo(fifo)
    writer = os.open(fifo, os.O_RDWR) if has_writer else None
    os.replace(fifo, board.path(path))
    wait_record(display, lambda r: number_at(r, offset) == 0, "nothing read")
    for _ in range(3):
        assert number_at(next_record(display), offset) == 0
    if has_writer:
        os.close(writer)


# On a slow board only the status poller opens the radio-control block.
SLOW_BOARD = "Raspberry Pi Zero"


def test_the_rc_block_is_created_once(board, start, viewer):
    display = viewer()
    daemon = start(QUIET, model=SLOW_BOARD)
    block = board.path(RC_BLOCK)
    assert next_record(display)[15:17] == b"\0\0"
    assert block.read_bytes() == bytes(RC_BLOCK_SIZE)
    assert block.stat().st_mode & 0o777 == 0o600
    for _ in range(5):
        next_record(display)
    assert daemon.errors().count("Creating new shared raw RC\n") == 1
    assert "Shared raw RC mem opened" not in daemon.errors()


def test_an_existing_rc_block_keeps_its_contents(board, start, viewer):
    display = viewer()
    content = bytes((3 + 7 * i) % 251 for i in range(RC_BLOCK_SIZE))
    board.write(RC_BLOCK, content)
    daemon = start(QUIET, model=SLOW_BOARD)
    for _ in range(6):
        assert next_record(display)[15:17] == content[:2]
    assert board.path(RC_BLOCK).read_bytes() == content
    assert daemon.errors().count("Shared raw RC mem opened\n") == 1
    assert "Creating new shared raw RC" not in daemon.errors()


@pytest.mark.parametrize("size", [0, 2, 5000])
def test_an_rc_block_of_another_size_gets_the_right_one(board, start, viewer, size):
    display = viewer()
    board.write(RC_BLOCK, b"\2\1"[:size] + bytes(max(size - 2, 0)))
    start(QUIET, model=SLOW_BOARD)
    assert next_record(display)[15:17] == (b"\2\1" if size else b"\0\0")
    assert board.path(RC_BLOCK).stat().st_size == RC_BLOCK_SIZE


def test_rc_states_follow_the_block(board, start, viewer):
    display = viewer()
    board.write(RC_BLOCK, bytes(RC_BLOCK_SIZE))
    start(QUIET, model=SLOW_BOARD)
    with open(board.path(RC_BLOCK), "r+b", buffering=0) as block:
        for states in (b"\1\0", b"\0\2", b"\2\1", b"\xff\x80"):
            os.pwrite(block.fileno(), states, 0)
            wait_record(display, lambda r: r[15:17] == states, f"RC states {states}")


TEMPERATURE = "/sys/class/thermal/thermal_zone0/temp"


def test_temperature(board, start, viewer):
    display = viewer()
    start(QUIET)
    assert next_record(display)[18] == 0
    for text, expected in [("48312\n", 48), ("48999", 48), ("-500\n", 0), ("999", 0),
                           ("-1999", 255), ("-12000", 244), ("300000", 44), ("warm", 0), (None, 0)]:
        replace(board, TEMPERATURE, "77000\n")
        wait_record(display, lambda r: r[18] == 77, "a temperature that is told apart")
        if text is None:
            board.path(TEMPERATURE).unlink()
        else:
            replace(board, TEMPERATURE, text)
        assert wait_record(display, lambda r: r[18] != 77, "it changed")[18] == expected, text


@pytest.mark.parametrize("enabled, borders, expected", [
    (0, 0, 0), (1, 0, 1), (0, 1, 2), (1, 1, 3), (4, 3, 10), (300, 5, 54), (-1, 0, 255)])
def test_osd(start, viewer, enabled, borders, expected):
    display = viewer()
    start(QUIET + f"osd_enabled={enabled}\nosd_borders={borders}\n")
    assert next_record(display)[17] == expected
