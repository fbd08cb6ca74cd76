"""The demo of the console: the address that it prints leads to it."""

import os
import re
import signal
import subprocess
import urllib.request

import pytest

from board import EMULATOR
from conftest import BUILD, REPOSITORY, wait_until

pytestmark = pytest.mark.skipif(bool(EMULATOR), reason="not built for another processor")


def test_the_address_leads_to_the_console(tmp_path):
    with open(tmp_path / "out", "wb") as out:
        demo = subprocess.Popen(["/usr/bin/python3", "-B", REPOSITORY / "demo/web.py", "--build",
                                 BUILD], stdout=out, stderr=subprocess.STDOUT)
    try:
        said = wait_until(lambda: re.search(r"http://\S+/", (tmp_path / "out").read_text())
                          or demo.poll() is not None, "the address", 60.0)
        assert demo.poll() is None, (tmp_path / "out").read_text()
        with urllib.request.urlopen(said[0] + "healthz", timeout=10) as answer:
            assert answer.read() == b"ok\n"

        def status():
            with urllib.request.urlopen(said[0] + "api/v1/status", timeout=10) as reply:
                return reply.read()

        wait_until(lambda: b'"picture_problem":""' in status(), "the picture", 30.0)
        os.kill(demo.pid, signal.SIGINT)
        assert demo.wait(60) == 0
    finally:
        demo.kill()
