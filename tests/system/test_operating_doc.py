"""docs/operating.md against the sources and a running daemon: every line of standard error, the
ends and their statuses, the helpers, the paths."""

import re
import signal

import pytest

from conftest import REPOSITORY, wait_until

DOCUMENT = (REPOSITORY / "docs/operating.md").read_text()
STRING = r'"(?:[^"\\\n]|\\.)*"'
CONVERSION = r"%[-+ #0]*\d*(?:\.\d+)?(?:hh|h|ll|l|z)?[diuxXfFeEgGcs]"
ANYTHING = "<>"  # stands for a conversion, and for a <word> in the document

# Calls whose text is built elsewhere: what they print -> where its literals are, ending in "\n".
ELSEWHERE = {
    ("net/udp_endpoint.cpp", "failure"): "net/udp_endpoint.cpp",
    ("net/tcp_server.cpp", "message"): "net/tcp_server.cpp",
    ("core/startup.cpp", "step.before"): "core/startup.cpp",
    ("core/startup.cpp", "line"): "core/startup.cpp",
    ("core/startup.cpp", "step.after"): "core/startup.cpp",
    ("config/update.cpp", "row.announcement"): "config/update.cpp",
    ("rc/rc_loop.cpp", "menu_message(code)"): "rc/rc_loop.cpp",
    ("automove/movement_runner.cpp", "step.message.c_str()"): "automove/movement_steps.cpp",
    ("base/shared_memory.cpp", "guard.line"): "base/shared_memory.cpp",
    ("base/shared_memory.cpp", "guard.detach_line"): "base/shared_memory.cpp",
}
# Makes the standard error that all others write to.
ERROR_STREAM = "base/error_stream"
# Adds lines to what others write.
LINE_SINK = "base/line_sink.cpp"
# Lines that are only a conversion, and what is formatted into them.
WHOLE_LINES = {
    "media/internal_camera.cpp": "raspivid -t 0 <> --flush --inline --spstimings -o -",
    "automove/movement_list.cpp": None,  # the report, whose literals are in the same file
}


# What the sources print.

def code_of(path):
    """A source without its comments."""
    text = path.read_text()
    return re.sub(rf"({STRING})|//[^\n]*", lambda match: match[1] or "", text)


def arguments_at(code, start):
    """The text between the parenthesis at `start` and the matching one."""
    depth = 0
    for match in re.compile(rf"{STRING}|[()]").finditer(code, start):
        depth += {"(": 1, ")": -1}.get(match[0], 0)
        if depth == 0:
            return code[start + 1:match.start()]
    raise AssertionError("no end of a call")


def literals(code):
    """The string literals, adjacent ones joined, with their escapes resolved."""
    return ["".join(re.findall(STRING, run)).replace('""', "").strip('"')
            .replace('\\"', '"').replace("\\n", "\n").replace("\\t", "\t")
            for run in re.findall(rf"{STRING}(?:\s*{STRING})*", code)]


def printing_calls(code):
    """The expressions that are written to standard error; nothing else may mention it."""
    found = []
    for match in re.finditer(r"\b(fputs|fprintf)(?=\()", code):
        arguments = arguments_at(code, match.end())
        if match[1] == "fputs" and re.search(r",\s*stderr\s*$", arguments):
            found.append(re.sub(r",\s*stderr\s*$", "", arguments))
        elif match[1] == "fprintf" and arguments.startswith("stderr"):
            found.append(arguments.partition(",")[2].strip())
    # All that a signal handler may do.
    return found + re.findall(r"\bwrite_error_line\(([^)]+)\);", code)


def lines_of(text):
    """A text as (line, does it end?) with conversions as ANYTHING; without empty lines."""
    pieces = re.sub(CONVERSION, ANYTHING, text).split("\n")
    return {(line, number < len(pieces) - 1) for number, line in enumerate(pieces) if line}


def printed_by_sources():
    found, unknown = set(), []
    for path in [*(REPOSITORY / "src").rglob("*.cpp"), *(REPOSITORY / "src").rglob("*.h"),
                 *(REPOSITORY / "include").iterdir()]:
        name = str(path.relative_to(REPOSITORY)).removeprefix("src/")
        code = code_of(path)
        calls = printing_calls(code)
        # This test must learn other ways to print first.
        mentions = re.findall(r"\b(?:stderr|STDERR_FILENO|write_error_line)\b",
                              re.sub(STRING, "", code))
        if name == LINE_SINK:
            found |= lines_of(next(text for text in literals(code) if text.endswith("\n")
                                   and len(text) > 1))
        if name.removesuffix(".h").removesuffix(".cpp") == ERROR_STREAM:
            continue
        assert len(calls) == len(mentions), name
        assert not re.search(r"std::cerr|\bperror\(|\bdprintf\(|\bpsignal\(", code)
        for call in calls:
            texts = literals(call)
            # The format comes first; a conditional may print any of its literals.
            is_choice = "?" in re.sub(STRING, "", call.partition(",")[0])
            texts = texts if is_choice or not texts else texts[:1]
            if not call.startswith('"') and not is_choice:
                source = ELSEWHERE.get((name, call))
                if source is None:
                    unknown.append((name, call))
                    continue
                texts = [text for text in literals(code_of(REPOSITORY / "src" / source))
                         if text.endswith("\n")]
            for text in texts:
                found |= lines_of(text)
        if (ANYTHING, True) in found:
            found.remove((ANYTHING, True))
            formatted = WHOLE_LINES[name]
            made = lines_of(formatted + "\n") if formatted else set().union(
                *(lines_of(text) for text in literals(code) if text.startswith("\tnumber")))
            found |= made
    assert not unknown, "texts of these calls are not known here"
    return found


# What the document says.

def described_lines():
    """The first cells of the tables of lines, as in the sources."""
    found = []
    for part in DOCUMENT.split("\n\n"):
        if part.startswith("| Line |"):
            for row in part.splitlines()[2:]:
                cell = re.match(r"\| `([^`]*)` \|", row)
                assert cell and row.count("|") == 4, row
                line = re.sub(r"<[a-z]+>", ANYTHING, cell[1])
                found.append(line.replace("\\t", "\t"))
    return found


def test_every_line_of_the_sources_is_described_and_no_other():
    described = described_lines()
    assert len(described) == len(set(described)), "a line stands in the tables twice"
    printed = {line for line, _ in printed_by_sources()}
    assert printed - set(described) == set(), "printed, not described"
    assert set(described) - printed == set(), "described, not printed"


def unmatched_lines(text):
    """The lines on standard error that no row describes."""
    open_pieces = [line for line, ends in printed_by_sources() if not ends]
    rows = [re.compile(".*".join(re.escape(piece) for piece in line.split(ANYTHING)))
            for line in described_lines()]
    left = []
    for line in text.splitlines():
        for piece in open_pieces:
            line = line.removeprefix(piece)
        if line and not any(row.fullmatch(line) for row in rows):
            left.append(line)
    return left


@pytest.mark.parametrize("model", ["Raspberry Pi 4", "Raspberry Pi Zero 2 W"])
def test_every_line_of_a_run_is_described(board, start, make_client, make_producer, model):
    movement = "1,2,3,,,,,0,0,,;" * 2
    daemon = start(f'stream_udp_clients=192.168.1.10:5600\naudio_enabled=1\nrecording_place=1\n'
                   f'automove_list="{movement}"\n', model=model)
    board.path("/sys/board/bin/pidof").write_text("#!/sys/board/sh\n")
    board.path("/sys/board/bin/pidof").chmod(0o755)
    client, source = make_client(), board.socket()
    client.register()
    daemon.wait_error("New client connected")
    for command in (b'"config_request","param":"wifi"', b'"wlan","param":"scan","value":"int"',
                    b'"wlan","param":"scan","value":"none"',
                    b'"rc","param":"set-config","value":"0","value2":"[]"',
                    b'"updateconfig","param":"wlan","value":"int","value2":"camera"',
                    b'"updateconfig","param":"streaming","value":"rtmp"',
                    b'"updateconfig","param":"gimbal"', b'"updateconfig","param":"rec"',
                    b'"file","param":"get","value":"/none","value2":"0"'):
        client.send(b'{"cmd":' + command + b"}")
    source.sendto(b"telemetry", ("127.0.0.1", 5000))
    daemon.wait_error("Data found")
    if "Zero" not in model:
        source.sendto(b"sound", ("127.0.0.1", 5003))
        daemon.wait_error("Audio found")
        make_producer().publish(b"frame")
        daemon.wait_error("Video found")
        daemon.wait_error("Audio lost")
        daemon.wait_error("Video lost")
    daemon.wait_error("Data lost")
    daemon.wait_error("Failed to read file /none")
    client.remove()
    daemon.wait_error(" removed")
    assert unmatched_lines(daemon.errors()) == []
    assert unmatched_lines("Data foundling\nSomething new\n") == ["Data foundling", "Something new"]


# The ends.

def ends():
    """Status -> what the document says about it."""
    part = next(p for p in DOCUMENT.split("\n\n") if p.startswith("| Status | Why | Input"))
    return {row.split("|")[1].strip(): row for row in part.splitlines()[2:]}


EMPTY = b""
ENDING_COMMANDS = [
    ("1", b'{"cmd":"updateconfig","param":"app_type","value":"0"}', "`app_type`"),
    ("2", b'{"cmd":"restart"}', '`{"cmd":"restart"}`'),
    ("3", EMPTY, "an empty datagram"),
    ("SIGABRT", b'{"cmd":', "does not parse"),
    ("SIGABRT", b'{"param":"scan"}', "no `cmd`"),
    ("SIGABRT", b'{"cmd":"wlan","param":"scan"}', "`wlan` without `param` or `value`"),
    ("SIGABRT", b'{"cmd":"updateconfig"}', "`file`, `rc` or `updateconfig` without `param`"),
]


@pytest.mark.parametrize("status, payload, words", ENDING_COMMANDS)
def test_inputs_that_end_it(daemon, make_client, status, payload, words):
    assert words in ends()[status]
    make_client().send(payload, header=b"" if payload == EMPTY else b"R" + bytes(11))
    assert daemon.wait_exit() == (-signal.SIGABRT if status == "SIGABRT" else int(status))
    assert unmatched_lines(daemon.errors()) == []


def test_statuses_are_those_of_the_sources():
    header = (REPOSITORY / "src/base/process_end.h").read_text()
    numbers = set(re.findall(r"exit_status_\w+ = (\d+);", header))
    assert set(ends()) == numbers | {"SIGABRT"}


# Helpers and paths.

def test_helpers_are_those_that_the_sources_stop():
    part = next(p for p in DOCUMENT.split("\n\n") if p.startswith("| Settings | Stopped |"))
    told = set().union(*(re.findall(r"`([^`]+)`", row.split("|")[2])
                         for row in part.splitlines()[2:]))
    stopped = set()
    for path in (REPOSITORY / "src").rglob("*.cpp"):
        stopped |= set(re.findall(r'kill_process_by_name\("([^"]+)"\)', path.read_text()))
    assert told == stopped


def test_files_it_names_are_those_of_the_sources():
    sources = "".join(path.read_text() for path in (REPOSITORY / "src").rglob("*.[ch]*"))
    sources += "".join((REPOSITORY / "packaging" / name).read_text()
                       for name in ("with-boot", "run-time-config"))
    named = set(re.findall(r"/(?:run|boot|dev|mnt|media)/?[\w./-]*\w", DOCUMENT))
    # What the sources spell differently or do not contain.
    others = {"/dev/shm", "/dev/sda0", "/dev/mem"}
    assert {name for name in named if name not in sources} <= others


def test_links_lead_somewhere():
    for target in re.findall(r"\]\(([^)#]+)\)", DOCUMENT):
        assert (REPOSITORY / "docs" / target).exists(), target


def test_ports_of_the_firewall_are_those_it_opens(daemon):
    rules = re.search(r"```nft\n(.*?)```", DOCUMENT, re.DOTALL)[1]
    packaged = (REPOSITORY / "packaging/quillorbeacon.nft").read_text()
    tcp_ports = r"tcp dport { ([\d, ]+) } (accept|drop)"
    assert re.findall(tcp_ports, rules) == re.findall(tcp_ports, packaged)
    dropped = re.search(r"udp dport { (.*?) } drop", rules)[1].split(", ")
    lines = wait_until(lambda: open(f"/proc/{daemon.pid}/net/udp").read().splitlines()[1:], "ports")
    assert sorted(dropped) == sorted(str(int(line.split()[1].split(":")[1], 16))
                                     for line in lines)
