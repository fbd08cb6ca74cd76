"""Reads docs/tour.md: its commands and the output that it shows for each.

A block is a transcript. One whose prompt is "board$" is typed into the shell of the demo's board.
Any other is outside the board, and the paragraph before it says so. Whatever else is found is a
TourError that names the line.
"""

import re
from dataclasses import dataclass, field

PROMPT = "board$ "
OTHER_PROMPTS = ("$ ", "# ")
MARK = "**Outside the board**"
LEFT_OUT = "..."

# What differs from run to run. Everything else is compared character by character.
VARIES = [
    r"\d+ bytes", r"\d+ packets", r"\d+ datagrams", r"\d+ commands came back", r"\d+ of them now",
    r"\d+\.\d+ s\b", r"\d+ lost, \d+ gaps?, the longest \d+\.\d s\b", r"\d+\.\d+ Mbit/s",
    r"\d+\.\d frames/s", r'(?<="frames_per_second":)\d+\.\d+', r"at packet \d+",
    r"20\d\d-\d\d-\d\d(?= \d\d:)", r"\d+\.\d MB/s", r"SHA-256 [0-9a-f]{64}", r"\d+\.\d seconds",
    r" +\d+\.\d{3}(?=  (?:command|sticks) )",
    r"[\d.]+ [GMk]B free", r"\d\d:\d\d:\d\d", r"Clients +\d+", r"nearest to step \d",
    r"at step \d", r"number=\d+ frames=\d+ commands=\d+",
    r"^\[1\] \d+$",  # a job's process
    r"(?<=^   [12]) +\d+(?= +1000 )", r" +-?\d\.\d{3}\b",  # a channel that a stick may be moving
    r"pan [-+][\d.]+ tilt [-+][\d.]+",
]
_VARIES = re.compile("|".join(f"({pattern})" for pattern in VARIES))


class TourError(Exception):
    pass


@dataclass
class Command:
    where: str
    text: str
    output: list = field(default_factory=list)


@dataclass
class Block:
    where: str
    paragraph: str  # the text before it
    lines: list = field(default_factory=list)
    commands: list = field(default_factory=list)  # only those of the board's shell

    @property
    def is_outside(self):
        return self.lines[0].startswith(OTHER_PROMPTS)


def line_pattern(line):
    """A regular expression for a line of output."""
    pattern, at = "", 0
    for found in _VARIES.finditer(line):
        pattern += re.escape(line[at:found.start()]) + VARIES[found.lastindex - 1]
        at = found.end()
    return pattern + re.escape(line[at:]) + "\n"


def output_pattern(lines):
    """A regular expression, for re.MULTILINE, for everything that a command prints."""
    return "".join("(?:.*\n)*?" if line == LEFT_OUT else line_pattern(line) for line in lines)


def parse_commands(block):
    for number, line in enumerate(block.lines, int(block.where.rpartition(":")[2]) + 1):
        if line.startswith(PROMPT):
            block.commands.append(Command(f"docs/tour.md:{number}", line[len(PROMPT):]))
        elif line.startswith(OTHER_PROMPTS):
            raise TourError(f"docs/tour.md:{number}: a prompt of another shell")
        else:
            block.commands[-1].output.append(line)


def check_block(block):
    if not block.lines or not block.lines[0].startswith((PROMPT, *OTHER_PROMPTS)):
        raise TourError(f"{block.where}: begins with no prompt")
    if block.is_outside != block.paragraph.startswith(MARK):
        raise TourError(f"{block.where}: prompt and mark disagree")
    if not block.is_outside:
        parse_commands(block)


def parse_tour(text):
    """All blocks, in order."""
    blocks, block, paragraph, is_new = [], None, "", True
    for number, line in enumerate(text.splitlines(), 1):
        if block is not None and line == "```":
            check_block(block)
            blocks.append(block)
            block, paragraph = None, ""
        elif block is not None:
            block.lines.append(line)
        elif line.startswith("```"):
            block = Block(f"docs/tour.md:{number}", paragraph)
        elif line:
            paragraph = line if is_new else f"{paragraph} {line}"
        is_new = not line
    if block is not None:
        raise TourError(f"{block.where}: has no end")
    return blocks
