"""What docs/console.md and the manual page say about beacon-web, against the program and its sources."""

import re
import subprocess

import pytest

from beacon_web import PROGRAM
from board import EMULATOR
from conftest import REPOSITORY
from test_operating_doc import ANYTHING, STRING, code_of, lines_of, literals, printing_calls

pytestmark = pytest.mark.skipif(bool(EMULATOR), reason="not built for another processor")


def test_the_manual_and_the_document_know_every_option():
    text = subprocess.run([PROGRAM, "--help"], check=True, capture_output=True, text=True).stdout
    options = set(re.findall(r"(?m)^  (?:-h,)?(--[a-z-]+)", text))
    assert len(options) > 4
    manual = (REPOSITORY / "docs/man/beacon-web.1").read_text().replace("\\-", "-")
    entries = re.findall(r'(?m)^\.TP\n\.B[IR]? (?:-h ", " )?(--[a-z-]+)', manual)
    assert sorted(entries) == sorted(options)
    document = (REPOSITORY / "docs/console.md").read_text()
    rows = re.findall(r"(?m)^\| `--.*?\|", document)
    assert {name for row in rows for name in re.findall(r"`(--[a-z-]+)", row)} == options - {"--help", "--version"}


def test_the_document_has_every_word_about_a_missing_picture():
    document = (REPOSITORY / "docs/console.md").read_text()
    source = (REPOSITORY / "tools/beacon_web/board_view.cpp").read_text()
    words = re.findall(r'"((?:The|No|Waiting)[^"%]*?[a-z])(?: "| %|\.)', source)
    assert len(words) == 10
    for text in words:
        assert f"| {text}" in document, text


def test_the_document_has_every_line_of_standard_error():
    document = (REPOSITORY / "docs/console.md").read_text()
    rows = re.findall(r"(?m)^\| `(beacon-web: [^`]*)` \|", document)
    printed = set()
    for path in (REPOSITORY / "tools/beacon_web").glob("*.cpp"):
        code = code_of(path)
        calls = printing_calls(code)
        # This test must learn other ways to print first.
        mentions = re.findall(r"\b(?:stderr|STDERR_FILENO|cerr|perror|dprintf)\b",
                              re.sub(STRING, "", code))
        assert len(calls) == len(mentions), path
        for call in calls:
            printed |= {line for line, _ in lines_of(literals(call)[0])}
    assert {re.sub("<[a-z]+>", ANYTHING, row) for row in rows} == printed
