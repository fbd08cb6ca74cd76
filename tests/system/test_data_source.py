"""The data source: where its texts end, and the commands that it gets."""

import signal

import pytest

from commands import Console
from conftest import wait_until


@pytest.fixture
def source(board):
    """A socket of the source process."""
    opened = board.socket(bind=("127.0.0.9", 0))
    opened.connect(("127.0.0.1", 5000))
    opened.settimeout(10)
    return opened


def test_a_text_is_not_completed_by_what_the_one_before_left(daemon, source):
    source.send(b'{"cmd":"nothing","param":"xxxxxxxx"}')
    daemon.wait_error('parse_packet json {"cmd":"nothing","param":"xxxxxxxx"}\n')
    # Invalid JSON by itself, which ends the process.
    source.send(b'{"cmd":"nothing"')
    assert daemon.wait_exit(20.0) == -signal.SIGABRT
    assert 'parse_packet json {"cmd":"nothing"\n' in daemon.errors()


def test_the_movement_mode_told_follows_the_setting(board, daemon, source, make_client):
    console = Console(board, daemon, make_client())

    def is_told(mode):
        source.send(b"xhere")
        return b'"value":"%s"' % mode in source.recv(65535)

    for value, mode in (("1", b"abs"), ("0", b"rel"), ("7", b"abs")):
        console.update("gimbal", value, "1", "1", "1", "1", "1", "1")
        wait_until(lambda mode=mode: is_told(mode), f"{mode} told", timeout=20)
