"""README.md's numbers are those of docs/performance.md."""

import re

import pytest

from conftest import REPOSITORY

LOAD = r"\| video, 60 Mbit/s, 60 frames/s, 10 clients \| daemon \|"
# A text with a number in it, and where docs/performance.md has that number.
NUMBERS = [
    ("| {} datagrams lost;", rf"{LOAD} \d+ \| (\d+) \|"),
    ("is complete at the last client after {} ms |", rf"{LOAD}.*\| ([\d.]+) \|\n"),
    ("| {} us per video datagram delivered;", rf"{LOAD} \d+ \| \d+ \| ([\d.]+) \("),
    ("| up to {} datagrams/s in", r"\| daemon \| (\d+) \([\d to]+\) \| \d+ \|"),
    ("and {} datagrams/s out without loss |", r"\| daemon \| \d+ \([\d to]+\) \| (\d+) \|"),
    ("; {} % of a core when idle with ten clients |", r"\| daemon \| ([\d.]+) \([\d. to]+\) \|\n"),
    ("| {} MB private,", r"\| private memory beyond the rings and the TCP queue \|[^|]*\| ([\d.]+) MB \|"),
    ("| {} datagrams with a wrong byte, length, sender or number |",
     r"\| datagrams with a wrong byte, length, sender or number \|[^|]*\| (\d+) \|"),
]


@pytest.mark.parametrize("text, place", NUMBERS)
def test_number_is_that_of_the_measurement(text, place):
    [number] = re.findall(place, (REPOSITORY / "docs/performance.md").read_text())
    assert text.format(number) in (REPOSITORY / "README.md").read_text()


def test_all_numbers_are_checked():
    readme = (REPOSITORY / "README.md").read_text()
    begin = readme.index("|---|", readme.index("## How fast it is"))
    table = readme[begin:readme.index("[docs/performance.md]", begin)]
    measured = re.findall(r"[\d.]+", " ".join(row.split("|")[2] for row in table.splitlines()
                                              if row.startswith("| ")))
    assert len(measured) == len(NUMBERS)


def test_links_lead_somewhere():
    for target in re.findall(r"\]\(([^)#]+)", (REPOSITORY / "README.md").read_text()):
        assert (REPOSITORY / target).exists(), target
