"""Requests of clients and of the data source: binary requests, JSON commands, Wi-Fi scans, and the
few payloads that end the process.
"""

import os
import signal
import struct
import threading
import time

import pytest

from conftest import wait_until

KEEP_ALIVE = b'!{"cmd":"set","name":"movement"'
SYSTEM_REQUEST = b'{"cmd":"config_request","param":"system"}'
SYSTEM_ANSWER = b'{"cmd":"config_answer","fs_rw":0,"make_preview":0}'
LARGEST_PAYLOAD = 30000 - 12


class Source:
    """The data source. Replies to its commands reach it as relay packets."""

    def __init__(self, board):
        self.socket = board.socket(bind=("127.0.0.3", 0), timeout=20.0)
        self.stopped = threading.Event()
        self.thread = threading.Thread(target=self.stay_known)

    def send(self, datagram):
        self.socket.sendto(datagram, ("127.0.0.1", 5000))

    def stay_known(self):
        while not self.stopped.wait(0.2):
            self.send(b".")

    def receive_from(self, port):
        """The next datagram from that port of the daemon, keep-alives excepted."""
        end = time.monotonic() + 20.0
        while time.monotonic() < end:
            datagram, sender = self.socket.recvfrom(65535)
            if sender == ("127.0.0.1", port) and not datagram.startswith(KEEP_ALIVE):
                return datagram
        raise TimeoutError(f"nothing from port {port}")

    def receive_reply(self):
        datagram = self.receive_from(5252)
        assert datagram[:2] == b"R\0" and datagram[8:12] == b"\1\0\0\0"
        assert int.from_bytes(datagram[2:4], "little") == len(datagram) - 12
        return datagram[12:]


@pytest.fixture
def source(board):
    return Source(board)


@pytest.fixture
def known_source(source, daemon):
    """A data source that sends something five times a second, so that it is not lost."""
    source.thread.start()
    daemon.wait_error("Data found\n")
    yield source
    source.stopped.set()
    source.thread.join()


@pytest.fixture
def client(make_client):
    return make_client()


def reply(client):
    """The payload of the next packet that is not a status record."""
    end = time.monotonic() + 20.0
    while time.monotonic() < end:
        kind, _, payload = client.receive(20.0)
        assert kind == 0
        if payload[0] != 4:
            return payload
    raise TimeoutError("status records only")


def expect_silence(client):
    """Checks that everything the client sent has been handled and had no effect."""
    client.ask_info()
    payload = reply(client)
    assert payload[0] == 1 and len(payload) == 44


def commands(board, *tools):
    """The calls of these tools."""
    return [line for line in board.log()
            if line.removeprefix("sh -c ").split(" ")[0].split(";")[0] in tools]


def expect_abort(daemon):
    assert daemon.wait_exit(20.0) == -signal.SIGABRT


def said(daemon, *starts):
    """The lines on standard error that begin so; other threads may print lines in between."""
    return [line for line in daemon.errors().splitlines() if line.startswith(starts)]


# Ending and rebooting.

@pytest.mark.parametrize("more", [b"", b',"param":"x","value":"y"'])
def test_restart_ends_with_status_2(daemon, client, more):
    client.send(b'{"cmd":"restart"' + more + b"}")
    assert daemon.wait_exit(20.0) == 2


def test_the_data_source_can_restart(daemon, source):
    source.send(b'{"cmd":"restart"}')
    assert daemon.wait_exit(20.0) == 2


def test_reboot_runs_two_commands_and_goes_on(board, daemon, client):
    client.send(b'{"cmd":"reboot"}')
    expect_silence(client)
    assert commands(board, "sync", "reboot") == ["sh -c sync", "sync", "sh -c reboot", "reboot"]
    assert daemon.alive()


# Screenshots.

@pytest.mark.parametrize("size", [1, 255, 256, 1000, 49998, 49999])
def test_a_screenshot_is_sent_whole(board, daemon, client, size):
    picture = bytes(i * 7 % 251 for i in range(size))
    board.write("/run/quillorbeacon/screenshot.png", picture)
    client.send(b"\x09")
    payload = reply(client)
    assert payload == bytes([10, size % 256, size // 256]) + picture
    assert len(payload) == size + 3


@pytest.mark.parametrize("size", [None, 0, 50000, 50001, 60000])
def test_no_screenshot_no_reply(board, daemon, client, size):
    if size is not None:
        board.write("/run/quillorbeacon/screenshot.png", bytes(size))
    client.send(b"\x09")
    expect_silence(client)


def test_nobody_waits_for_the_writer_of_a_screenshot(board, daemon, client):
    os.mkfifo(board.path("/run/quillorbeacon/screenshot.png"))
    client.send(b"\x09")
    expect_silence(client)


# Passed on to the data source.

@pytest.mark.parametrize("payload", [
    b'!{"cmd":"shot","param":""}', b"!", b"!{", b"!a\0b\xff", b"!" + b"x" * (LARGEST_PAYLOAD - 1),
    b"\x05\x01", b"\x05\x01\0\0\xff\x7f", b"\x05\xff" + bytes(range(256)), b"\x05\x80abc",
], ids=lambda payload: f"{payload[:6]!r}-{len(payload)}")
def test_forwarded_whole(known_source, client, payload):
    client.send(payload)
    assert known_source.receive_from(5000) == payload
    expect_silence(client)


@pytest.mark.parametrize("payload", [
    b"\x05", b"\x05\0", b"\x05\0\xff\x7f\x01\x80\0\0", b"\x05\0\x01\x01\x01\x01\x01\x01!"])
def test_not_forwarded(known_source, client, payload):
    client.send(payload)
    client.send(b"!end")
    assert known_source.receive_from(5000) == b"!end"
    expect_silence(client)


def test_other_first_bytes_are_ignored(known_source, daemon, client):
    for first in sorted(set(range(256)) - {0, 2, 3, 5, 9, ord("!"), ord("{")}):
        client.send(bytes([first]) + SYSTEM_REQUEST)
    client.send(b"!end")
    assert known_source.receive_from(5000) == b"!end"
    expect_silence(client)
    assert "parse_packet" not in daemon.errors()


def test_without_a_data_source_nothing_is_forwarded(daemon, client):
    client.send(b"!lost")
    client.send(b"\x05\x01")
    expect_silence(client)


# JSON commands.

ANY_TOOL = ("sync", "reboot", "ifconfig", "iwlist", "killall", "zerotier-cli", "tvservice")


def test_a_command_is_logged(daemon, client):
    client.send(b'{"cmd":"%n%s\xc3\xbc", "x" :[1]}')
    expect_silence(client)
    daemon.wait_error('parse_packet json {"cmd":"%n%s\u00fc", "x" :[1]}\n')


@pytest.mark.parametrize("command", [
    b'{"cmd":""}', b'{"cmd":"nothing"}', b'{"cmd":"RESTART"}', b'{"cmd":"restart "}',
    b'{"cmd":"Reboot"}', b'{"cmd":"shot","param":"","value":""}', b'{"cmd":"config_requests"}',
    b'{"cmd":"file","param":"put","value":"/etc/hostname"}', b'{"cmd":"file","param":""}',
    b'{"cmd":"rc","param":"","value":"0"}', b'{"cmd":"rc","param":"Get-channels"}',
    b'{"cmd":"updateconfig","param":"nothing"}', b'{"cmd":"updateconfig","param":""}',
    b'{"cmd":5}', b'{"cmd":true}', b'{"cmd":"file","param":0}', b'{"cmd":"rc","param":-1.5e3}',
    b'{"cmd":"wlan","param":"status","value":"int"}', b'{"cmd":"wlan","param":"","value":""}',
])
def test_unknown_names_do_nothing(board, daemon, client, command):
    client.send(command)
    expect_silence(client)
    assert daemon.alive() and commands(board, *ANY_TOOL) == []


def test_replies_go_to_the_asker_only(board, daemon, registered_client, client, source):
    display = board.socket(bind=("127.0.0.1", 5253), timeout=20.0)
    other = registered_client(daemon)
    client.send(SYSTEM_REQUEST)
    assert reply(client) == SYSTEM_ANSWER
    expect_silence(other)
    source.send(b"next")
    received = []
    while b"next" not in received:
        received.append(display.recv(65535)[12:])
        assert received[-1] == b"next" or received[-1][0] == 4


def test_a_client_on_this_board_is_served(daemon, make_client):
    local = make_client("127.0.0.1")
    local.send(SYSTEM_REQUEST)
    assert reply(local) == SYSTEM_ANSWER


FORGE = """
import socket, struct, sys
forged = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_UDP)
forged.bind((sys.argv[1], 0))
datagram = b"R" + bytes(11) + bytes.fromhex(sys.argv[2])
header = struct.pack("!HHHH", 5252, 5252, 8 + len(datagram), 0)
forged.sendto(header + datagram, ("127.0.0.1", 0))
"""


def test_the_servers_own_datagrams_are_ignored(board, daemon, client):
    for payload in (b'{"cmd":"restart"}', b"{", b"\2\0", b"\0"):
        board.run("/usr/bin/python3", "-c", FORGE, "127.0.0.1", payload.hex())
    expect_silence(client)
    assert daemon.alive()
    assert "parse_packet" not in daemon.errors() and "New client" not in daemon.errors()


def test_the_same_port_of_another_host_is_served(board, daemon):
    board.run("/usr/bin/python3", "-c", FORGE, "127.0.0.2", b"\2\0".hex())
    daemon.wait_error("New client connected from 127.0.0.2:5252  \n")


def test_a_zero_ends_the_text(daemon, client):
    client.send(SYSTEM_REQUEST + b'\0{"cmd":"restart"}')
    assert reply(client) == SYSTEM_ANSWER
    assert said(daemon, "parse_packet") == [f"parse_packet json {SYSTEM_REQUEST.decode()}"]


@pytest.mark.parametrize("command", [
    b'{"CMD":"config_request","Param":"system"}trailing',
    b'{"CMD":"config_request","cmd":"restart","pARAM":"system","param":"x"}',
])
def test_names_match_in_any_case_and_the_first_counts(daemon, client, command):
    client.send(command)
    assert reply(client) == SYSTEM_ANSWER
    assert daemon.alive()


@pytest.mark.parametrize("command", [
    b'{"cmd":"nothing","CMD":"restart"}', b'{"cmd":"nothing","cmd":"restart"}',
    b'{"cmd":"nothing"}{"cmd":"restart"}',
])
def test_later_names_and_what_follows_the_object_count_for_nothing(daemon, client, command):
    client.send(command)
    expect_silence(client)
    assert daemon.alive()


def test_a_short_command_after_a_long_one(daemon, client):
    """No byte of the earlier payload remains after the later one."""
    for command in (SYSTEM_REQUEST[:-1] + b',"value":"' + b"x" * 5000 + b'"}', SYSTEM_REQUEST):
        client.send(command)
        assert reply(client) == SYSTEM_ANSWER
    assert said(daemon, "parse_packet")[1:] == [f"parse_packet json {SYSTEM_REQUEST.decode()}"]


def test_the_largest_command(daemon, client):
    command = SYSTEM_REQUEST[:-1] + b',"value":"%s"}'
    command %= b"x" * (LARGEST_PAYLOAD - len(command) + 2)
    assert len(command) == LARGEST_PAYLOAD
    client.send(command)
    assert reply(client) == SYSTEM_ANSWER
    daemon.wait_error(f"parse_packet json {command.decode()}\n")


def test_a_larger_command_is_cut_and_does_not_parse(daemon, client):
    client.send(b'{"cmd":"' + b"x" * (LARGEST_PAYLOAD - 9) + b'"}')
    expect_abort(daemon)


def test_the_largest_command_of_the_data_source(daemon, source):
    command = SYSTEM_REQUEST[:-1] + b',"value":"' + b"x" * (60000 - 52) + b'"}'
    assert len(command) == 60000
    source.send(command)
    assert source.receive_reply() == SYSTEM_ANSWER


def test_nesting(daemon, client):
    client.send(SYSTEM_REQUEST[:-1] + b',"value":' + b"[" * 100 + b"]" * 100 + b"}")
    assert reply(client) == SYSTEM_ANSWER


@pytest.mark.parametrize("tail", [b"", b"]" * 14000 + b"}"], ids=["open", "closed"])
def test_deep_nesting_is_survived_or_ends_the_process(daemon, client, tail):
    client.send(SYSTEM_REQUEST[:-1] + b',"value":' + b"[" * 14000 + tail)
    client.ask_info()
    client.socket.settimeout(0)

    def outcome():
        try:
            return client.socket.recv(65535)
        except BlockingIOError:
            return daemon.process.poll()

    assert wait_until(outcome, "a reply or an end", 30.0)
    assert daemon.process.poll() in (None, -signal.SIGABRT)


def test_the_data_source_is_answered_where_it_asked(board, daemon, source, registered_client):
    other = registered_client(daemon)
    source.send(SYSTEM_REQUEST)
    assert source.receive_reply() == SYSTEM_ANSWER
    assert reply(other) == SYSTEM_REQUEST
    expect_silence(other)
    board.prepare_output("iwlist", 'ESSID:"A"\n')
    source.send(b'{"cmd":"wlan","param":"scan","value":"ext"}')
    assert source.receive_reply() == b'{"cmd":"wlanscan","param":"ext","value":"A"}'


@pytest.mark.parametrize("datagram", [b"!" + SYSTEM_REQUEST, b" " + SYSTEM_REQUEST, b"\0", b"\x09"])
def test_other_data_is_only_relayed(daemon, source, registered_client, datagram):
    other = registered_client(daemon)
    source.send(datagram)
    source.send(b"next")
    assert reply(other) == datagram and reply(other) == b"next"
    assert "parse_packet" not in daemon.errors()


NOT_JSON = [b"{", b"{]", b'{"cmd":"restart"', b'{"cmd":"config_request","param":"a\0b"}', b"{cmd:1}",
            b'{"cmd":tru}']
LACKING = [
    (b"{}", "cmd"), (b'{"param":"scan","value":"int"}', "cmd"), (b'{"cmd":null}', "cmd"),
    (b'{"cmd":["restart"]}', "cmd"), (b'{"cmd":"wlan"}', "param"),
    (b'{"cmd":"wlan","value":"int"}', "param"), (b'{"cmd":"wlan","param":"scan"}', "value"),
    (b'{"cmd":"wlan","param":"status"}', "value"),
    (b'{"cmd":"wlan","param":"scan","value":null}', "value"), (b'{"cmd":"file"}', "param"),
    (b'{"cmd":"file","value":"x"}', "param"), (b'{"cmd":"rc"}', "param"),
    (b'{"cmd":"rc","value":"0"}', "param"), (b'{"cmd":"updateconfig"}', "param"),
    (b'{"cmd":"updateconfig","value":"1"}', "param"),
]
FATAL = [*((command, "command is not JSON") for command in NOT_JSON),
         *((command, f'command without "{name}"') for command, name in LACKING)]


@pytest.mark.parametrize("command, reason", FATAL)
def test_what_ends_the_process(board, daemon, client, command, reason):
    client.send(command)
    expect_abort(daemon)
    assert "parse_packet json {" in daemon.errors()
    assert said(daemon, "Fatal") == [f"Fatal: {reason}"]
    assert commands(board, *ANY_TOOL) == []


@pytest.mark.parametrize("command", [command for command, _ in FATAL])
def test_what_ends_the_process_is_relayed_first(daemon, source, registered_client, command):
    other = registered_client(daemon)
    source.send(command)
    expect_abort(daemon)
    assert reply(other) == command


# Wi-Fi scans.

def scan(client, selector, more=b""):
    client.send(b'{"cmd":"wlan","param":"scan","value":"' + selector.encode() + b'"' + more + b"}")


def scan_commands(interface):
    return [f"sh -c ifconfig {interface} up > /dev/null 2>&1", f"ifconfig {interface} up",
            f"sh -c iwlist {interface} scan 2>/dev/null", f"iwlist {interface} scan"]


@pytest.mark.parametrize("camera, network, selector, interface", [
    ("", "", "int", "wifi0"), ("", "", "ext", "wlan0"),
    ("int", "ext", "cam", "wifi0"), ("int", "ext", "lan", "wlan0"),
    ("ext", "int", "cam", "wlan0"), ("ext", "int", "lan", "wifi0"),
    ("ext", "ext", "int", "wifi0"),
])
def test_the_interface_to_scan(board, start, client, camera, network, selector, interface):
    daemon = start(f"camera_iface={camera}\nwifi_iface={network}\nap_iface=other\n")
    scan(client, selector, b',"value2":"cam"')
    expected = f'{{"cmd":"wlanscan","param":"{selector}","value":""}}'
    assert reply(client) == expected.encode()
    assert commands(board, "ifconfig", "iwlist") == scan_commands(interface)
    assert said(daemon, "Wlan scan", "scan results") == [
        f"Wlan scan request for interface {interface}", f"scan results: {expected}"]


@pytest.mark.parametrize("selector", ["", "cam", "lan", "INT", "wifi0", "ap", "ext ", "int;x"])
def test_an_unknown_interface_gets_no_reply(board, start, client, selector):
    daemon = start("camera_iface=wlan0\nwifi_iface=\nap_iface=int\n")
    scan(client, selector)
    expect_silence(client)
    assert said(daemon, "Interface", "Wlan scan") == ["Interface  not found"]
    assert commands(board, *ANY_TOOL) == []


def cell(number, name):
    return (f"          Cell {number:02} - Address: 00:11:22:33:44:{number:02X}\n"
            f"                    Channel:{number}\n"
            f"                    Frequency:2.437 GHz (Channel {number})\n"
            "                    Quality=70/70  Signal level=-39 dBm  \n"
            "                    Encryption key:on\n"
            f'                    ESSID:"{name}"\n'
            "                    Bit Rates:1 Mb/s; 2 Mb/s; 5.5 Mb/s; 11 Mb/s\n"
            "                    Mode:Master\n"
            "                    IE: IEEE 802.11i/WPA2 Version 1\n")


def scan_output(*names):
    return "wifi0     Scan completed :\n" + "".join(cell(i + 1, n) for i, n in enumerate(names))


@pytest.mark.parametrize("output, names", [
    (scan_output("Attic", "Cellar", "House net"), "Attic,Cellar,House net"),
    ("wifi0     No scan results\n", ""),
    (scan_output("Alone"), "Alone"),
    (scan_output("", "A"), ",A"),
    (scan_output("A", "", "B"), "A,,B"),
    (scan_output("A", ""), "A,"),
    (scan_output("", "", ""), ",,"),
    (scan_output('a"b', "c,d", "%n%s%d", "\u00fc\u20ac\U0001f4f7", "\\x00\\", "ESSID"),
     'a"b,c,d,%n%s%d,\u00fc\u20ac\U0001f4f7,\\x00\\,ESSID'),
    (scan_output("A", "x" * 32), "A," + "x" * 32),
    ('ESSID:"A"\nESSID:"last"', "A,las"),    # no line end: a letter is lost with the quote
    ("ESSID:off/any\nESSID:\nESSID:\"\n ESSID:ab\n", "ff/an,,,"),
    ('ESSID:"a ESSID:"b"\n', 'a ESSID:"b'),
    ('essid:"a"\nESSID "b"\nESSID:"c"\n', "c"),
    ('ESSID:"A"\r\n', 'A"'),
    # 1023 characters are read at a time.
    ('ESSID:"' + "a" * 2000 + '"\nESSID:"B"\n', "a" * 1014 + ",B"),
    ("x" * 1013 + 'ESSID:"A"\nESSID:"B"\n', "A,B"),
    ("x" * 1014 + 'ESSID:"A"\nESSID:"B"\n', ",B"),
    ("x" * 1020 + 'ESSID:"cut"\nESSID:"B"\n', "B"),
    ("x" * 1023 + 'ESSID:"A"\n', "A"),
], ids=str.split("three none one hidden-first hidden-within hidden-last all-hidden odd long no-end "
                 "bare twice other-marks cr long-line just-fits just-cut mark-cut second-piece"))
def test_network_names(board, start, client, output, names):
    daemon = start()
    board.prepare_output("iwlist", output)
    scan(client, "int")
    expected = f'{{"cmd":"wlanscan","param":"int","value":"{names}"}}'
    assert reply(client) == expected.encode()
    daemon.wait_error(f"scan results: {expected}\n")


def test_a_list_beyond_the_reply_is_cut(board, daemon, client):
    names = [f"{number:04}" + "x" * 28 for number in range(2000)]
    board.prepare_output("iwlist", scan_output(*names))
    scan(client, "int")
    whole = '{"cmd":"wlanscan","param":"int","value":"' + ",".join(names) + '"}'
    answer = reply(client).decode()
    assert whole.startswith(answer) and 59999 <= len(answer) <= 60000
    expect_silence(client)


# Requests that other modules carry out.

def test_rc_channels_come_in_two_replies(daemon, client):
    client.send(b'{"cmd":"rc","param":"get-channels"}')
    client.ask_info()
    assert reply(client).startswith(b'{"cmd":"rc1","state":0,"ch":[{"raw":0,')
    assert reply(client).startswith(b'{"cmd":"rc2","state":0,"ch":[{"raw":0,')
    assert len(reply(client)) == 44


@pytest.mark.parametrize("param, value, value2, line", [
    ("calibrate-minmax", "0", "", "Set RC1 state 2\n"),
    ("finish-minmax", "1", "", "Set RC2 state 3\n"),
    ("set-center", "0", "", "Set RC1 state 4\n"),
    ("set-config", "1", "[]", "Set RC2 config: []\n"),
    ("set-config", "2", "[]", "Set RC3 config: []\n"),
])
def test_rc_settings(daemon, client, param, value, value2, line):
    client.send(f'{{"cmd":"rc","param":"{param}","value":"{value}","value2":"{value2}"}}'.encode())
    expect_silence(client)
    assert line in daemon.errors()


def test_gimbal_values_of_the_application(board, daemon, client):
    client.send(struct.pack("<BBhhh", 5, 0, 32767, -32767, 0))
    path = board.path("/run/quillorbeacon/smooth_ptd_app_values")
    wait_until(lambda: path.exists() and path.read_text() == "1.000000,-1.000000,0.000000",
               "the smoothed values", 5.0)


def test_a_file_is_sent(board, daemon, client):
    board.write("/run/quillorbeacon/file", "abc")
    client.send(b'{"cmd":"file","param":"get","value":"/run/quillorbeacon/file","value2":"0"}')
    kind, _, payload = client.receive(5.0)
    assert (kind, payload) == (4, struct.pack("<HII", 3, 0, 3) + b"abc")
