"""The reliable transport: the program contains it, although nothing starts it."""

import re
import subprocess

import pytest

from conftest import BINARY

OPERATIONS = ["create", "release", "setmtu", "nodelay", "send", "recv", "peeksize", "input",
              "update", "check", "flush", "output", "ack_push"]


@pytest.fixture(scope="module")
def functions():
    """The names of all functions in the program; C++ names include their arguments."""
    table = subprocess.run(["readelf", "--wide", "--symbols", BINARY], check=True,
                           capture_output=True, text=True).stdout
    return {fields[7] for fields in map(str.split, table.splitlines())
            if len(fields) == 8 and fields[3] == "FUNC" and fields[6] != "UND"}


@pytest.mark.parametrize("name", [*(f"ikcp_{operation}" for operation in OPERATIONS),
                                  "init_kcp_server", "kcp_server_send"])
def test_the_program_has_the_function(functions, name):
    pattern = re.compile(f"{name}|_Z{len(name)}{name}.*")
    assert any(map(pattern.fullmatch, functions))
