"""The web demo: a board with the daemon, a simulated camera and the console, for a browser here.

Prints an address for a browser on this machine, and runs until Ctrl-C. With --screenshot, a browser
in the sandbox opens the console instead, turns the gimbal, and its picture is saved. The exit status
is 0 when the picture moved there. Needs root; script/demo --web builds the programs first.
"""

import argparse
import base64
import signal
import socket
import subprocess
import sys
import tempfile
import threading
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(REPOSITORY / "sandbox"))

from board import Board, Daemon, require_root, wait_until  # noqa: E402
from browser import NAME, Browser  # noqa: E402
from stage import prepare  # noqa: E402

PORT = 8080


def pump(source, target):
    """Copies what comes from one socket to the other until either ends."""
    try:
        while data := source.recv(65536):
            target.sendall(data)
    except OSError:
        pass
    for each in (source, target):
        try:
            each.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass


def serve(board, listener):
    """Takes this machine's connections into the sandbox, which has a network of its own."""
    while True:
        outside, _ = listener.accept()
        inside = board.socket(socket.SOCK_STREAM, timeout=None)
        inside.connect(("127.0.0.1", PORT))
        for pair in ((outside, inside), (inside, outside)):
            threading.Thread(target=pump, args=pair, daemon=True).start()


def listen():
    """The port 8080 of this machine, or another that is free."""
    listener = socket.socket()
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    try:
        listener.bind(("127.0.0.1", PORT))
    except OSError:
        listener.bind(("127.0.0.1", 0))
    listener.listen()
    return listener


def start(board, build, folder, program, *options):
    with open(folder / program, "wb") as output:
        return board.popen(build / program, *options, stdin=subprocess.DEVNULL, stdout=output,
                           stderr=output)


def take_screenshot(board, path):
    with Browser(board, (1280, 1280)) as browser:
        browser.open()
        browser.wait("return document.querySelector('video').currentTime > 2", "the picture", timeout=60)
        before = browser.run("return document.querySelector('video').currentTime")
        browser.wait("return document.querySelector('video').currentTime > arguments[0] + 1",
                     "the moving picture", before)
        path.write_bytes(base64.b64decode(browser.screenshot()))
    print(f"The console as a browser shows it: {path}")


def stay(board):
    listener = listen()
    threading.Thread(target=serve, args=(board, listener), daemon=True).start()
    stopped = threading.Event()
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: stopped.set())
    print(f"The console is at http://127.0.0.1:{listener.getsockname()[1]}/ (Ctrl-C ends it)",
          flush=True)
    stopped.wait()


def play(board, arguments, folder):
    prepare(board)
    daemon = Daemon(board, arguments.build / "quillorbeacon", folder / "daemon")
    daemon.wait_ready()
    start(board, arguments.build, folder, "beacon-sim", "--sticks", "circle", "--bitrate", "4000")
    start(board, arguments.build, folder, "beacon-web", "--listen", f"127.0.0.1:{PORT}",
          "--allow-host", NAME)
    wait_until(lambda: "http://" in (folder / "beacon-web").read_text(), "the console")
    if arguments.screenshot:
        take_screenshot(board, arguments.screenshot.resolve())
    else:
        stay(board)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=Path, default=REPOSITORY / "build/release")
    parser.add_argument("--screenshot", type=Path, metavar="FILE")
    arguments = parser.parse_args()
    arguments.build = arguments.build.resolve()
    require_root()
    # Ctrl-C reaches every process of the terminal; all but this one must ignore it.
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    with tempfile.TemporaryDirectory() as folder, Board(arguments.build) as board:
        try:
            play(board, arguments, Path(folder))
        except AssertionError as failure:
            print(f"demo: {failure}", file=sys.stderr)
            sys.exit(1)


if __name__ == "__main__":
    main()
