"""The Wireshark dissector: tshark's values of every field in packets of a capture made here.

What is expected comes from the tables of the protocol's documents.
"""

import struct
import subprocess

import pytest

from conftest import REPOSITORY
from protocol_text import parse_document

SCRIPT = REPOSITORY / "tools/wireshark/quillorbeacon.lua"
BOARD, CLIENT = ("192.0.2.1", 5252), ("192.0.2.2", 40001)
# The tables whose payloads a daemon or a client sends: the filter's name, the packet's type, and
# whether the client sends it.
LAYOUTS = {
    "Asking what is there": ("info", 0, False),
    "The status record": ("status", 0, False),
    "Screenshot": ("screenshot", 0, False),
    "Moving the gimbal": ("gimbal", 0, True),
    "Downloading a file": ("file", 4, False),
}
TABLES = {table.heading: table.rows for name in ("protocol.md", "commands.md")
          for table in parse_document(name, (REPOSITORY / "docs" / name).read_text()).tables}


def address(host):
    return bytes(int(part) for part in host.split("."))


def frame(payload, stream=0, to_board=True, length=None, constant=1):
    """An Ethernet frame with a relay packet."""
    (source, source_port), (target, target_port) = (CLIENT, BOARD) if to_board else (BOARD, CLIENT)
    size = len(payload) if length is None else length
    relay = struct.pack("<cBHII", b"R", stream, size, 7, constant) + payload
    udp = struct.pack(">HHHH", source_port, target_port, 8 + len(relay), 0) + relay
    ip = struct.pack(">BBHHHBBH", 0x45, 0, 20 + len(udp), 0, 0, 64, 17, 0) + \
        address(source) + address(target)
    return bytes(12) + b"\x08\x00" + ip + udp


def write_capture(file, frames):
    with open(file, "wb") as out:
        out.write(struct.pack("<IHHiIII", 0xa1b2c3d4, 2, 4, 0, 0, 1 << 18, 1))
        for number, data in enumerate(frames):
            out.write(struct.pack("<IIII", number, 0, len(data), len(data)) + data)


def run_tshark(folder, frames, *options, script=SCRIPT):
    """What tshark prints about a capture of the frames, and what it says of the script."""
    capture = folder / "capture.pcap"
    write_capture(capture, frames)
    done = subprocess.run(
        ["tshark", "-n", "-r", capture, "-X", f"lua_script:{script}", *options], check=False,
        env={"PATH": "/usr/bin:/bin", "HOME": str(folder), "LC_ALL": "C.UTF-8"},
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    # A script with an error ends with status 0. tshark also says that it is run as root.
    said = [line for line in done.stderr.splitlines() if not line.startswith("Running as user")]
    return done.stdout, said


def sizes(row):
    return int(row["Size"]) if row["Size"] != "n" else 5


def layout_payload(heading):
    """A payload in which every byte differs, but for the kind of packet."""
    made = bytearray(range(0x21, 0x21 + sum(sizes(row) for row in TABLES[heading])))
    first = TABLES[heading][0]
    if first["Field"] == "`kind`":
        made[0] = int(first["Meaning"])
    if heading == "Moving the gimbal":
        made[1] = 0  # with any other target it is not read
    return bytes(made)


def layout_fields(heading):
    """The names of a layout's fields and the rows that they come from."""
    for row in TABLES[heading]:
        name = row["Field"].strip("`").replace("-", "reserved")
        if name != "kind":
            prefix = LAYOUTS[heading][0]
            yield "payload" if (prefix, name) == ("screenshot", "data") else f"{prefix}.{name}", row


def value_of(row, payload):
    data = payload[int(row["Offset"]):][:sizes(row)]
    kind = row["Type"]
    if "[" in kind:
        return data.decode() if row["Field"] == "`name`" else data.hex()
    return str(int.from_bytes(data, "little", signed=kind.startswith("i")))


FLAGS = [f"status.{name}" for name in (
    "network.access_point", "network.wifi", "network.camera", "service.recording", "service.udp",
    "service.rtmp", "service.srt", "service.rtsp")]
REQUESTS = {
    b"\x00": "info request", b"\x02\x01": "registration", b"\x03": "unregistration",
    b"\x05\x00": "gimbal values", b"\x09": "screenshot request",
    b'{"cmd":"reboot"}': 'JSON command {"cmd":"reboot"}',
    b'!{"cmd":"shot"}': 'command for the camera !{"cmd":"shot"}', b"\x77": "unknown request",
    b"": "no payload"}
STREAMS = {
    (b"\x08\x03", 0): "menu notice", (b'{"cmd":"x"}', 0): "answer to a command",
    (b"telemetry", 0): "telemetry", (bytes(1300), 1): "video, 1300 bytes",
    (bytes(3), 2): "audio, 3 bytes", (b"ab", 3): "the board's own camera, 2 bytes",
    (b"?", 9): "unknown stream, 1 bytes"}
WRONG = {
    frame(b"\x00", length=5): "the length is not that of the payload",
    frame(b"\x00", constant=2): "the constant is not 1",
    frame(b"\x04\x01", 0, False): "shorter than its table"}
OTHERS = [frame(b"")[:42] + b"Qtoo-long-for-a-header", frame(b"")[:43]]


def status_with(bit):
    payload = bytearray(41)
    payload[0] = 4
    payload[4 if bit < 3 else 6] = 1 << (bit if bit < 3 else bit - 3)
    return frame(bytes(payload), 0, False)


def all_frames():
    """Every frame of the capture by what it is for."""
    for heading, (_, stream, to_board) in LAYOUTS.items():
        yield heading, frame(layout_payload(heading), stream, to_board)
    for bit, name in enumerate(FLAGS):
        yield name, status_with(bit)
    for payload in REQUESTS:
        yield payload, frame(payload)
    for payload, stream in STREAMS:
        yield (payload, stream), frame(payload, stream, False)
    for made in [*WRONG, *OTHERS]:
        yield made, made


NAMES = ["magic", "type", "length", "sequence", "constant", "payload", "json", "menu.code", *FLAGS,
         *(name for heading in LAYOUTS for name, _ in layout_fields(heading) if name != "payload")]
COLUMNS = ["_ws.col.Info", "_ws.col.Protocol", "_ws.expert.message"]


@pytest.fixture(scope="module")
def shown(tmp_path_factory):
    """The values of all fields in each frame, by what the frame is for; one run of tshark."""
    keys, frames = zip(*all_frames())
    names = [*(f"quillorbeacon.{name}" for name in NAMES), *COLUMNS]
    text, said = run_tshark(tmp_path_factory.mktemp("tshark"), frames, "-T", "fields", "-E",
                            "separator=|", *(word for name in names for word in ("-e", name)))
    assert said == []
    lines = [line.split("|") for line in text.splitlines()]
    assert len(lines) == len(frames)
    return {key: dict(zip([*NAMES, *COLUMNS], line)) for key, line in zip(keys, lines)}


@pytest.mark.parametrize("heading", LAYOUTS)
def test_every_field_of_the_documents_has_its_value(shown, heading):
    values = shown[heading]
    payload = layout_payload(heading)
    for name, row in layout_fields(heading):
        value = str(int(values[name], 16)) if values[name].startswith("0x") else values[name]
        assert value == value_of(row, payload), name
    assert values["_ws.expert.message"] == ""


def test_the_header_has_its_values(shown):
    values = shown[(b"telemetry", 0)]
    assert [values[name] for name in NAMES[:6]] == ["R", "0", "9", "7", "1", b"telemetry".hex()]


@pytest.mark.parametrize("flag", FLAGS)
def test_flags_are_told_apart(shown, flag):
    assert [name for name in FLAGS if shown[flag][name] == "1"] == [flag]


def test_requests_have_their_names(shown):
    assert {payload: shown[payload]["_ws.col.Info"] for payload in REQUESTS} == REQUESTS
    assert {shown[payload]["_ws.col.Protocol"] for payload in REQUESTS} == {"quillorbeacon"}


def test_answers_and_streams_have_their_names(shown):
    assert {key: shown[key]["_ws.col.Info"] for key in STREAMS} == STREAMS
    assert shown[(b"\x08\x03", 0)]["menu.code"] == "3"
    assert shown[(b'{"cmd":"x"}', 0)]["json"] == '{"cmd":"x"}'


def test_what_is_wrong_is_told(shown):
    assert {made: shown[made]["_ws.expert.message"] for made in WRONG} == WRONG


def test_other_datagrams_are_left_alone(shown):
    assert [shown[made]["magic"] for made in OTHERS] == ["", ""]
    assert [shown[made]["_ws.col.Protocol"] for made in OTHERS] == ["UDP", "UDP"]


def test_a_script_with_an_error_is_noticed(tmp_path):
    """The run above would not be one that shows nothing: this ends with status 0, too."""
    broken = tmp_path / "broken.lua"
    broken.write_text(SCRIPT.read_text() + "nothing_that_exists()\n")
    _, said = run_tshark(tmp_path, [frame(b"\x00")], script=broken)
    assert any("nothing_that_exists" in line for line in said)
