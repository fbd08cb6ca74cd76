"""Which boards a package lets itself be installed on."""

import os
import subprocess
from pathlib import Path

import pytest

PREINST = Path(__file__).resolve().parents[1] / "armv7-preinst"


@pytest.mark.parametrize("action", ["install", "upgrade"])
@pytest.mark.parametrize("processor,refused", [
    ("armv6l", True), ("armv7l", False), ("armv8l", False), ("aarch64", False)])
def test_a_package_for_armv7_refuses_armv6(tmp_path, action, processor, refused):
    uname = tmp_path / "uname"
    uname.write_text(f"#!/bin/sh\n[ \"$*\" != -m ] || echo {processor}\n")
    uname.chmod(0o755)
    done = subprocess.run(["sh", PREINST, action], env={"PATH": f"{tmp_path}:{os.environ['PATH']}"},
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    assert (done.returncode != 0) == refused
    if refused:
        assert processor in done.stdout and "Build the packages on the board" in done.stdout
    else:
        assert done.stdout == ""
