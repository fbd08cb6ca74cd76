"""The table of programs in docs/settings.md has every setting once, and names packages that there are."""

import re
from fnmatch import fnmatchcase

from conftest import REPOSITORY

TEXT = (REPOSITORY / "docs/settings.md").read_text()


def rows(heading):
    section = TEXT.split(f"\n## {heading}\n")[1].split("\n## ")[0]
    lines = [line for line in section.splitlines() if line.startswith("|")][2:]
    return [[cell.strip() for cell in line.strip("|").split("|")] for line in lines]


def test_every_setting_has_its_program():
    keys = [re.fullmatch("`(.*)`", row[0])[1] for row in rows("Keys")]
    patterns = [pattern for row in rows("Programs") for pattern in re.findall("`(.*?)`", row[0])]
    assert len(keys) > 80
    assert {key: [p for p in patterns if fnmatchcase(key, p)] for key in keys
            if sum(fnmatchcase(key, p) for p in patterns) != 1} == {}
    assert [p for p in patterns if not any(fnmatchcase(key, p) for key in keys)] == []


def test_what_a_package_here_brings_is_in_it():
    control = (REPOSITORY / "debian/control").read_text()
    packages = set(re.findall(r"(?m)^Package: (.*)$", control))
    media = (REPOSITORY / "tools/beacon_media/CMakeLists.txt").read_text()
    roles = set(re.search(r"set\(roles (.*)\)", media)[1].split())
    told = set()
    for _, needed, brought_by, _ in rows("Programs"):
        named = re.findall("`(quillorbeacon[a-z-]*)`", brought_by)
        assert set(named) <= packages
        if brought_by.startswith("`quillorbeacon-media`") or "; `quillorbeacon-media`" in brought_by:
            told |= set(re.findall("`([a-z-]+)`", needed)[:1])
    assert told == roles
