"""Reads the protocol documents: their examples, tables and programs.

docs/protocol.md describes the notation under "How to read the examples". Anything that it does not
allow raises a DocumentError that names the line.
"""

import re
from dataclasses import dataclass, field

PACKET_PARTIES = {"client", "second", "data", "video", "audio", "display", "notes", "restream",
                  "tcp", "memory", "frame", "file", "program"}
TEXT_PARTIES = {"setting", "shell", "stops", "signals", "error", "exit"}
BEFORE_START = {"setting", "file", "program"}  # what a "board" block may hold
SEND_ONLY = {"video", "audio", "frame", "program"}
RECEIVE_ONLY = {"display", "notes", "restream", "shell", "stops", "signals", "error", "exit"}
PROGRAM_LANGUAGES = {"python", "c", "sh"}

STEP = re.compile(r"(\w+)((?: [^<> ]+)*) ([<>])(?: (.*))?")
COMMENT = re.compile(r"(?:^|\s+)# (.*)$")
TOKEN = re.compile(r'"([^"]*)"(?:x(\d+))?|(now)|([0-9a-f]{2}|\.\.)(?:x(\d+))?')
ARGUMENTS = {"memory": 2, "file": 1, "program": None}
TEXT_STARTS = ("{", "[", "!{")


class DocumentError(Exception):
    pass


@dataclass
class Part:
    """The bytes of one line: as a regular expression, and literally if they are fully given."""

    pattern: bytes = b""
    literal: bytes | None = b""
    size: int = 0
    comment: str = ""

    def add(self, data, count=1):
        self.pattern += re.escape(data) * count
        self.size += len(data) * count
        if self.literal is not None:
            self.literal += data * count

    def add_any(self, count):
        self.pattern += b"(?s:.{%d})" % count
        self.size += count
        self.literal = None


@dataclass
class Step:
    where: str
    party: str
    arguments: list
    sends: bool
    text: str = ""
    header: int | None = None  # the relay packet's type, if the line begins with R and a digit
    parts: list = field(default_factory=list)
    nothing: bool = False
    is_now: bool = False

    @property
    def pattern(self):
        return b"".join(part.pattern for part in self.parts)

    @property
    def literal(self):
        if any(part.literal is None for part in self.parts):
            raise DocumentError(f"{self.where}: what is sent must be given in full")
        return b"".join(part.literal for part in self.parts)


@dataclass
class Block:
    where: str
    kind: str  # "exchange", "board" or a programming language
    name: str  # of a program
    heading: str
    lines: list
    steps: list = field(default_factory=list)

    @property
    def is_fresh(self):
        return self.lines[:1] and self.lines[0][1] == "# on a fresh board"


@dataclass
class Table:
    where: str
    heading: str
    rows: list  # of dictionaries, by column


@dataclass
class Document:
    name: str
    blocks: list
    tables: list


def text_part(text, where):
    """A text to the end of the line; "..." in it stands for any characters."""
    part = Part()
    for number, piece in enumerate(text.split("...")):
        if number > 0:
            part.pattern += b"(?s:.*?)"
            part.literal = None
        part.add(piece.encode())
    if "…" in text:
        raise DocumentError(f"{where}: write three dots")
    return part


def byte_part(text, where):
    """Hexadecimal bytes, ".." for any byte, "text" in quotes; xN after one of them: N times."""
    part = Part()
    at = 0
    while at < len(text):
        token = TOKEN.match(text, at)
        end = token.end() if token else at
        if token is None or end < len(text) and text[end] != " ":
            raise DocumentError(f"{where}: not understood: {text[at:]!r}")
        quoted, quoted_count, now, byte, count = token.groups()
        if quoted is not None:
            part.add(quoted.encode(), int(quoted_count or 1))
        elif now:
            part.add_any(4)
        elif byte == "..":
            part.add_any(int(count or 1))
        else:
            part.add(bytes.fromhex(byte), int(count or 1))
        at = end + 1
    return part


def split_comment(text):
    found = COMMENT.search(text)
    return (text[:found.start()].rstrip(), found.group(1)) if found else (text.rstrip(), "")


def check_step(step):
    name, party = step.where, step.party
    if party not in PACKET_PARTIES | TEXT_PARTIES:
        raise DocumentError(f"{name}: who is {party!r}?")
    wanted = ARGUMENTS.get(party, 0)
    if wanted is not None and len(step.arguments) != wanted:
        raise DocumentError(f"{name}: {party} takes {wanted} arguments")
    if party in SEND_ONLY and not step.sends or party in RECEIVE_ONLY and step.sends:
        raise DocumentError(f"{name}: the other way round for {party}")


def parse_content(step, rest, comment):
    """The first line's content."""
    if step.party in TEXT_PARTIES:
        step.text = rest
        return
    if rest == "nothing":
        step.nothing = True
        if step.sends or step.party not in ("client", "second", "file"):
            raise DocumentError(f"{step.where}: nothing can be said about {step.party}")
        return
    header = re.match(r"R(\d)(?: |$)", rest)
    if header:
        step.header = int(header.group(1))
        rest = rest[header.end():]
    step.is_now = rest == "now"
    add_part(step, rest, comment, step.where)


def add_part(step, text, comment, where):
    if not text and not comment:
        return
    is_text = text.startswith(TEXT_STARTS) or step.text == "text"
    part = text_part(text, where) if is_text else byte_part(text, where)
    if is_text:
        step.text = "text"  # a continuation line extends it
    part.comment = comment
    step.parts.append(part)


def parse_steps(block):
    for number, line in block.lines:
        where = f"{block.where.rpartition(':')[0]}:{number}"
        content, comment = split_comment(line)
        if not content:
            continue
        if line.startswith(" "):
            if not block.steps or block.steps[-1].party in TEXT_PARTIES:
                raise DocumentError(f"{where}: goes on with nothing")
            add_part(block.steps[-1], content.strip(), comment, where)
            continue
        found = STEP.fullmatch(content)
        if not found:
            raise DocumentError(f"{where}: not understood: {content!r}")
        party, arguments, arrow, rest = found.groups()
        step = Step(where, party, arguments.split(), arrow == ">")
        check_step(step)
        if block.kind == "board" and (party not in BEFORE_START or not step.sends):
            raise DocumentError(f"{where}: no part of a board")
        parse_content(step, rest or "", comment)
        block.steps.append(step)


def start_block(where, info, heading):
    words = info.split()
    kind, name = (words + ["", ""])[:2]
    if words in (["exchange"], ["board"]):
        return Block(where, kind, name, heading, [])
    if kind in PROGRAM_LANGUAGES and len(words) == 2:
        return Block(where, kind, name, heading, [])
    raise DocumentError(f"{where}: a block of an unknown kind: {info!r}")


def parse_row(line):
    return [cell.strip().replace("\\|", "|") for cell in re.split(r"(?<!\\)\|", line)[1:-1]]


def parse_document(name, text):
    """Every fenced block, and every table with an "Offset" column."""
    document = Document(name, [], [])
    heading, block, columns, table = "", None, None, None
    for number, line in enumerate(text.splitlines(), 1):
        where = f"{name}:{number}"
        if block is not None:
            if line.startswith("```"):
                document.blocks.append(block)
                block = None
            else:
                block.lines.append((number, line))
        elif line.startswith("```"):
            block = start_block(where, line[3:], heading)
        elif line.startswith("#"):
            heading = line.lstrip("# ")
        if block is None and line.startswith("| "):
            if columns is None:
                columns = parse_row(line)
                table = Table(where, heading, [])
                if columns[0] == "Offset":
                    document.tables.append(table)
            else:
                table.rows.append(dict(zip(columns, parse_row(line), strict=True)))
        elif not line.startswith("|"):
            columns = None
    if block is not None:
        raise DocumentError(f"{block.where}: has no end")
    for found in document.blocks:
        if found.kind in ("exchange", "board"):
            parse_steps(found)
    return document
