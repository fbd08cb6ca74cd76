"""The daemon does what docs/protocol.md, docs/commands.md and docs/source-protocol.md say.

Every example is played against the daemon, every layout is compared with the headers and with the
examples, every command has an example, and the programs in the documents are run.
"""

import json
import re
import socket
import subprocess

import pytest

from conftest import REPOSITORY, wait_until
from protocol_replay import Stage, offset_of
from protocol_text import DocumentError, parse_document

NAMES = ["protocol.md", "commands.md", "source-protocol.md"]
DOCUMENTS = {name: parse_document(name, (REPOSITORY / "docs" / name).read_text())
             for name in NAMES}
BLOCKS = [block for document in DOCUMENTS.values() for block in document.blocks]
FRESH = [block for block in BLOCKS if block.kind == "exchange" and block.is_fresh]
PROGRAMS = {block.name: "\n".join(line for _, line in block.lines) + "\n" for block in BLOCKS
            if block.kind not in ("exchange", "board")}

# Tables under these headings: the file that describes the layout, what its constants begin with,
# and the size of the whole; None: the last field ends it.
LAYOUTS = {
    "The relay packet": ("src/net/relay_packet.h", "relay_", 12),
    "Asking what is there": ("src/net/relay.cpp", "info_", 44),
    "Screenshot": ("src/net/relay.cpp", "image_", None),
    "The status record": ("src/core/status_monitor.cpp", "", 41),
    "Moving the gimbal": (None, "", 8),
    "Downloading a file": ("src/transfer/file_piece_layout.h", "piece_", None),
    "The frame ring": ("src/media/frame_ring_layout.h", "ring_", 24),
    "A slot": ("src/media/frame_ring_layout.h", "slot_", None),
    "The radio-control block": ("src/rc/rc_block_layout.h", "rc_", 1504),
    "A channel record": ("src/rc/rc_block_layout.h", "channel_", 32),
    "The camera state": ("src/automove/camera_state_layout.h", "camera_", 6),
}
TYPE_SIZES = {"u8": 1, "i8": 1, "u16": 2, "i16": 2, "u32": 4, "f64": 8}


def board_steps(block):
    document = DOCUMENTS[block.where.partition(":")[0]]
    return [step for other in document.blocks if other.kind == "board" for step in other.steps]


# The examples.

@pytest.mark.parametrize("name", NAMES)
def test_examples(board, start, name):
    blocks = [block for block in DOCUMENTS[name].blocks if block.kind == "exchange"]
    stage = Stage(board, start, board_steps(blocks[0]))
    for block in blocks:
        if block not in FRESH:
            stage.play(block)


@pytest.mark.parametrize("block", FRESH, ids=lambda block: block.where)
def test_example_on_a_fresh_board(board, start, block):
    Stage(board, start, board_steps(block)).play(block)


def test_a_broadcast_finds_the_board(daemon, make_client):
    client = make_client("0.0.0.0")
    client.socket.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
    client.socket.sendto(b"R" + bytes(12), ("127.255.255.255", 5252))
    kind, _, payload = client.receive()
    assert kind == 0 and payload[0] == 1 and len(payload) == 44


@pytest.mark.parametrize("text", [
    "```exchange\nclient 52 00\n```",            # no arrow
    "```exchange\nclient > 5\n```",              # half a byte
    "```exchange\nclient > \"open\n```",
    "```exchange\nstranger > 52\n```",
    "```exchange\nvideo < 52\n```",              # this party only sends
    "```exchange\nmemory ring > 52\n```",        # no offset
    "```exchange\n  52\n```",                    # nothing to continue
    "```exchange\ndata < nothing\n```",          # cannot be known
    "```board\nclient > 52\n```",
    "```exchange fresh\nclient > 52\n```",
    "```packet\n52\n```",
    "```python\nprint()\n```",                   # a program without a name
    "```exchange\nclient > 52\n",                # no end
])
def test_what_the_notation_does_not_know_is_refused(text):
    with pytest.raises(DocumentError):
        parse_document("text", text)


# The layouts.

def constants(path, prefix):
    """The named offsets of a source file: "constexpr size_t PREFIXname_at = 4;"."""
    text = (REPOSITORY / path).read_text()
    found = re.findall(rf"constexpr size_t {prefix}(\w+)_at = (\d+);", text)
    return {name: int(offset) for name, offset in found}


def row_size(row):
    kind, _, count = row["Type"].partition("[")
    return TYPE_SIZES[kind] * int(count.rstrip("]") or 0 if count else 1)


@pytest.mark.parametrize("heading", LAYOUTS)
def test_table_fits_the_layout(heading):
    path, prefix, size = LAYOUTS[heading]
    [table] = [t for document in DOCUMENTS.values() for t in document.tables
               if t.heading == heading]
    end = 0
    for row in table.rows:
        assert int(row["Offset"]) == end, row
        if row["Size"] == "n":
            assert row is table.rows[-1] and row["Type"] == "u8[]"
        else:
            assert int(row["Size"]) == row_size(row), row
            end += int(row["Size"])
    assert size in (None, end)
    if path is not None:
        fields = {row["Field"].strip("`"): int(row["Offset"]) for row in table.rows}
        fields.pop("-", None)
        assert fields == constants(path, prefix)


def test_every_table_of_offsets_is_checked():
    headings = [t.heading for document in DOCUMENTS.values() for t in document.tables]
    assert sorted(headings) == sorted(LAYOUTS)


def named(comment):
    """The field that a comment names: "length: of the frame" names "length"."""
    return re.split(r"[:,]", comment)[0].strip()


def annotated_messages(heading):
    """(field, size) of each line of the examples under a heading that show a message in full."""
    for block in BLOCKS:
        if block.heading == heading:
            for step in block.steps:
                if step.party != "memory" and len(step.parts) > 2:
                    yield [(named(part.comment), part.size) for part in step.parts if part.size]


@pytest.mark.parametrize("heading", ["The relay packet", "Asking what is there", "Screenshot",
                                     "The status record", "Moving the gimbal",
                                     "Downloading a file"])
def test_an_example_spells_the_message_out(heading):
    [table] = [t for document in DOCUMENTS.values() for t in document.tables
               if t.heading == heading]
    fields = [(row["Field"].strip("`"), row["Size"]) for row in table.rows]
    for message in annotated_messages(heading):
        if [(name, size if size == "n" else str(length)) for (name, length), (_, size)
                in zip(message, fields)] == fields:
            return
    pytest.fail(f"no example under {heading!r} has these fields: {fields}")


@pytest.mark.parametrize("heading", ["The frame ring", "A slot", "The radio-control block",
                                     "A channel record", "The camera state"])
def test_examples_write_and_read_every_field(heading):
    """A comment such as "slot ready" names the field at the offset's last summand."""
    [table] = [t for t in DOCUMENTS["source-protocol.md"].tables if t.heading == heading]
    places = {row["Field"].strip("`"): int(row["Offset"]) for row in table.rows}
    places.pop("-", None)
    prefix = heading.split()[-1] + " "
    used = {}
    for step in (step for block in BLOCKS for step in block.steps if step.party == "memory"):
        for part in step.parts:
            if part.comment.startswith(prefix):
                at = offset_of(step.arguments[1].rpartition("+")[2])
                used.setdefault(named(part.comment.removeprefix(prefix)), set()).add(at)
    assert used == {name: {at} for name, at in places.items()}


# A text with a number in it, the file that has the number, its name there, and the factor.
NUMBERS = [
    ("protocol.md", "| clients | {} |", "src/net/client_registry.h", "client_capacity", 1),
    ("protocol.md", "forgotten more than {} s after", "src/net/client_registry.h",
     "client_timeout_ms", 1000),
    ("protocol.md", "| datagram from a client | {} bytes", "src/net/control_server.cpp",
     "receive_size", 1),
    ("protocol.md", "| payload to a client | {} bytes;", "src/net/relay_packet.h",
     "relay_payload_capacity", 1),
    ("protocol.md", "; video {} |", "src/net/relay_packet.h", "relay_video_block_size", 1),
    ("protocol.md", "silent for more than {} s,", "src/media/data_source.cpp", "silence_ms", 1000),
    ("protocol.md", "A picture of {} bytes or more", "src/net/dispatcher.cpp",
     "screenshot_limit", 1),
    ("protocol.md", "| file piece | {} bytes", "src/transfer/file_piece_layout.h",
     "piece_capacity", 1),
    ("protocol.md", "| a command's answer | {} bytes", "src/config/answer.h",
     "config_answer_limit", 1),
    ("protocol.md", "at a time, {} waiting;", "src/net/tcp_server.cpp", "listen_backlog", 1),
    ("protocol.md", "the connection's buffer ({} MB,", "src/net/tcp_server.cpp",
     "send_buffer_size", 1000000),
    ("protocol.md", "is disconnected after {} to 25 seconds", "src/net/tcp_stream.h",
     "tcp_silence_ms", 1000),
    ("protocol.md", "| UDP 127.0.0.1:{}, 5255 |", "src/net/relay.cpp", "display_port", 1),
    ("source-protocol.md", "| {} | 300018 | 60003624 |", "src/media/frame_ring_layout.h",
     "main_frame_capacity", 1),
    ("source-protocol.md", "| {} | 65018 | 13003624 |", "src/media/frame_ring_layout.h",
     "transcoding_frame_capacity", 1),
    ("source-protocol.md", "and {} slots, one after", "src/media/frame_ring_layout.h",
     "ring_slot_count", 1),
    ("source-protocol.md", "The daemon looks every {} ms and takes", "src/media/video_source.cpp",
     "ring_poll_us", 1000),
    ("source-protocol.md", "when it is {} ms old", "src/rc/rc_pass.cpp", "stale_ms", 1),
    ("source-protocol.md", "`/shared_rc_raw`, {} bytes", "src/rc/rc_block_layout.h",
     "rc_block_size", 1),
]


@pytest.mark.parametrize("name, text, path, constant, unit", NUMBERS,
                         ids=[number[3] for number in NUMBERS])
def test_number_is_that_of_the_code(name, text, path, constant, unit):
    [number] = re.findall(rf"\b{constant} = (\d+);", source(path))
    assert int(number) % unit == 0
    wanted = text.format(int(number) // unit)
    assert wanted in " ".join(source(f"docs/{name}").split())


# Nothing is left out.

def told_commands():
    """The JSON commands that the examples send, as objects."""
    for block in BLOCKS:
        for step in block.steps:
            if step.sends and step.text == "text" and step.literal.startswith(b"{"):
                try:
                    yield json.loads(step.literal)
                except json.JSONDecodeError:
                    pass


def told(*members):
    return {tuple(command.get(m, "") for m in members) for command in told_commands()}


def source(path):
    return (REPOSITORY / path).read_text()


def test_every_command_has_an_example():
    text = source("src/net/dispatcher.cpp")
    names = set(re.findall(r'\bname == "([^"]+)"', text))
    assert len(names) >= 7 and {(n,) for n in names} <= told("cmd")
    rc = set(re.findall(r'\bparam [!=]= "([^"]+)"', text))
    assert len(rc) >= 5 and {("rc", p) for p in rc} <= told("cmd", "param")
    for command, param in re.findall(
            r'run_(\w+)_command.*?(?:strcmp\([^;{]*?, "(\w+)"\) == 0)', text, re.DOTALL):
        assert (command, param) in told("cmd", "param")


def test_every_request_has_an_example():
    requests = re.findall(r"\brequest_\w+ = ([^,]+),", source("src/net/dispatcher.cpp"))
    first_bytes = {ord(r[1]) if r[0] == "'" else int(r) for r in requests}
    sent = {step.literal[0] for block in BLOCKS for step in block.steps
            if step.party == "client" and step.header is not None and step.sends}
    assert len(first_bytes) >= 7 and first_bytes <= sent


def test_every_update_has_an_example():
    rows = re.findall(r'^    \{"(\w+)", (nullptr|"\w+"), ', source("src/config/update.cpp"),
                      re.MULTILINE)
    assert len(rows) >= 39
    updates = {(c["param"], c.get("value", "")) for c in told_commands()
               if c.get("cmd") == "updateconfig" and "param" in c}
    for param, sub_command in rows:
        if sub_command == "nullptr":
            assert param in {p for p, _ in updates}
        else:
            assert (param, sub_command.strip('"')) in updates


def test_every_section_has_an_example():
    text = source("src/config/answer.cpp")
    sections = set(re.findall(r'\{"(\w+)", \w+_members, (?:true|false)\}', text)) | {"display"}
    assert len(sections) >= 13
    assert {("config_request", s) for s in sections} <= told("cmd", "param")


def test_every_note_has_an_example():
    notes = set(re.findall(r'"(\w+_(?:on|off))"', source("src/config/update_display.cpp")))
    seen = {step.literal.decode() for block in BLOCKS for step in block.steps
            if step.party == "notes"}
    assert len(notes) == 8 and notes == seen


def test_links_lead_somewhere():
    for name, document in DOCUMENTS.items():
        for file, anchor in re.findall(r"\]\(([^)#\s]*)#?([^)\s]*)\)", source(f"docs/{name}")):
            path = REPOSITORY / "docs" / (file or name)
            assert path.exists(), f"{name}: {file}"
            headings = re.findall(r"^#+ (.*)$", path.read_text(), re.MULTILINE)
            anchors = {re.sub(r"[^\w -]", "", h.lower()).replace(" ", "-") for h in headings}
            assert anchor == "" or anchor in anchors, f"{name}: {file}#{anchor}"


# The programs.

def test_client_and_source_carry_a_real_stream(board, start, tmp_path):
    """The board's camera is ffmpeg; the client writes what ffmpeg encoded."""
    daemon = start("recording_place=2\n")
    for name, text in PROGRAMS.items():
        board.write(f"/tmp/{name}", text)
    # What a test of C needs: the compiler, warnings on.
    (tmp_path / "ring_source.c").write_text(PROGRAMS["ring_source.c"])
    subprocess.run(["gcc", "-Wall", "-Wextra", "-Werror", "-O2", "-o", tmp_path / "ring_source",
                    tmp_path / "ring_source.c"], check=True)
    board.write("/tmp/ring_source", (tmp_path / "ring_source").read_bytes()).chmod(0o755)
    client = board.popen("/usr/bin/python3", "/tmp/first_client.py", "127.0.0.1",
                         "/tmp/received.h264", cwd="/tmp")
    daemon.wait_error("New client connected from 127.0.0.1:")
    camera = board.popen("/bin/sh", "/tmp/camera.sh", cwd="/tmp")
    assert camera.wait(60) == 0
    made = board.path("/tmp/camera.h264").read_bytes()
    received = board.path("/tmp/received.h264")
    wait_until(lambda: received.stat().st_size >= len(made), "the whole stream", 20.0)
    assert received.read_bytes() == made
    pictures = subprocess.run(
        ["ffprobe", "-v", "error", "-count_frames", "-show_entries", "stream=nb_read_frames",
         "-of", "csv=p=0", board.path("/tmp/camera.h264")], check=True, capture_output=True)
    assert pictures.stderr == b"" and int(pictures.stdout) == 30
    assert client.poll() is None
    client.terminate()
