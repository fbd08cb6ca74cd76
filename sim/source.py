"""A simulated camera: the source process that feeds the daemon on a board.

Encodes a moving test picture with a clock in real time and publishes it in the frame ring, sends
telemetry, audio and video-presence datagrams to the daemon's ports, and takes the commands that the
daemon sends back. Its gimbal turns as the daemon wants, moved by a stick at first. Runs until SIGTERM. It keeps a record of what it published, in a folder:

    published.h264   the video, up to a size (--keep)
    frames.bin       per frame: when it was published (CLOCK_MONOTONIC, ns) and the stream's length
                     with it, both 8 bytes little-endian
    record.json      written last: totals, and the SHA-256 of the whole video
"""

import argparse
import hashlib
import json
import math
import os
import signal
import socket
import struct
import subprocess
import sys
import threading
import time
from pathlib import Path

from access_units import AccessUnitSplitter
from gimbal import INTERVAL as GIMBAL_INTERVAL
from gimbal import Gimbal, Stick
from ring import FrameRing, RingError

DAEMON = "127.0.0.1"
DATA_PORT = 5000
VIDEO_PORT = 5001
AUDIO_PORT = 5003

WIDTH, HEIGHT, RATE = 1280, 720, 30
FONT = "/usr/share/fonts/truetype/dejavu/DejaVuSansMono-Bold.ttf"

STICK_SECONDS = 4.0  # how long the stick is moved
TELEMETRY_INTERVAL = 0.1
AUDIO_INTERVAL = 0.02
AUDIO_RATE = 16000
TONE = 440


def encoder_command():
    """The command line of the encoder, which writes H.264 to its standard output."""
    clock = (f"drawtext=fontfile={FONT}:fontsize=56:fontcolor=white:box=1:boxcolor=black@0.7:"
             "boxborderw=16:x=(w-text_w)/2:y=h-120:"
             r"text='%{localtime\:%T}  frame %{n}'")
    return ["ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error",
            "-re", "-f", "lavfi", "-i", f"testsrc2=size={WIDTH}x{HEIGHT}:rate={RATE}",
            "-vf", clock, "-pix_fmt", "yuv420p",
            "-c:v", "libx264", "-preset", "ultrafast", "-tune", "zerolatency", "-threads", "1",
            "-b:v", "4M", "-maxrate", "4M", "-bufsize", "2M", "-g", str(RATE),
            "-x264-params", "aud=1:repeat-headers=1",
            "-flush_packets", "1", "-f", "h264", "pipe:1"]


class Record:
    """Writes down what was published, for the comparison with what was received."""

    def __init__(self, folder, keep):
        self.folder = Path(folder)
        self.keep = keep
        self.frames = self.length = self.kept = 0
        self.digest = hashlib.sha256()
        self.video_file = open(self.folder / "published.h264", "wb")
        self.frames_file = open(self.folder / "frames.bin", "wb", buffering=0)

    def add(self, unit, published):
        self.frames += 1
        self.length += len(unit)
        self.digest.update(unit)
        if self.length <= self.keep:
            self.video_file.write(unit)
            self.kept = self.length
        self.frames_file.write(struct.pack("<QQ", published, self.length))

    def close(self, **totals):
        self.video_file.close()
        self.frames_file.close()
        totals |= {"frames": self.frames, "bytes": self.length, "kept": self.kept,
                   "sha256": self.digest.hexdigest()}
        # Under another name first: who sees the file sees it whole.
        unfinished = self.folder / "record.json.part"
        unfinished.write_text(json.dumps(totals))
        unfinished.rename(self.folder / "record.json")


class Beat:
    """Does something at a steady rate, on a thread of its own, until stopped."""

    def __init__(self, interval, action):
        self.count = 0
        self._interval = interval
        self._action = action
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)

    def start(self):
        self._thread.start()

    def stop(self):
        self._stop.set()
        self._thread.join()

    def _run(self):
        due = time.monotonic()
        while not self._stop.wait(max(0.0, due - time.monotonic())):
            self._action(self.count)
            self.count += 1
            due += self._interval


class Telemetry:
    """The data stream: lines of text to the daemon, commands from the daemon."""

    def __init__(self, record):
        self.commands = 0
        self._record = record
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.setblocking(False)

    def send(self, number):
        self._take_commands()
        line = f"T1 number={number} frames={self._record.frames} commands={self.commands}"
        self._socket.sendto(line.encode(), (DAEMON, DATA_PORT))
        if number % 10 == 0:
            # Any datagram on the video port says that there is video.
            self._socket.sendto(b"video", (DAEMON, VIDEO_PORT))

    def _take_commands(self):
        while True:
            try:
                command = self._socket.recv(2048)
            except BlockingIOError:
                return
            self.commands += command.startswith(b"!{")


def tone(number):
    """The given piece of a sine tone: 16-bit mono samples."""
    samples = int(AUDIO_RATE * AUDIO_INTERVAL)
    start = number * samples
    return struct.pack(f"<{samples}h", *(
        int(8000 * math.sin(2 * math.pi * TONE * ((start + i) % AUDIO_RATE) / AUDIO_RATE))
        for i in range(samples)))


def publish_video(encoder, ring, record, stopped):
    """Moves the encoder's stream into the ring, one access unit at a time, until it ends."""
    splitter = AccessUnitSplitter()
    ended = False
    while not ended:
        piece = os.read(encoder.stdout.fileno(), 1 << 16)
        ended = not piece
        for unit in splitter.flush() if ended else splitter.push(piece):
            published = ring.publish(unit, stopped)
            if published is None:
                raise RingError("the daemon no longer takes frames")
            record.add(unit, published)


def run(record):
    """Feeds the daemon until SIGTERM; returns the exit status."""
    stopping = threading.Event()
    ring = FrameRing()
    gimbal, stick = Gimbal(), Stick(STICK_SECONDS)
    # In a session of its own: Ctrl-C in the terminal is not meant for it.
    encoder = subprocess.Popen(encoder_command(), stdin=subprocess.DEVNULL,
                               stdout=subprocess.PIPE, start_new_session=True)

    def stop(*_):
        stopping.set()
        encoder.terminate()  # ends the stream after a whole frame

    signal.signal(signal.SIGTERM, stop)

    telemetry = Telemetry(record)
    audio_socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    beats = [Beat(TELEMETRY_INTERVAL, telemetry.send),
             Beat(AUDIO_INTERVAL,
                  lambda n: audio_socket.sendto(tone(n), (DAEMON, AUDIO_PORT))),
             Beat(GIMBAL_INTERVAL, gimbal.turn), Beat(GIMBAL_INTERVAL, stick.move)]
    for beat in beats:
        beat.start()
    try:
        publish_video(encoder, ring, record, stopping.is_set)
        if not ring.wait_taken():
            raise RingError("the daemon no longer takes frames")
    finally:
        encoder.kill()
        encoder.wait()
        for beat in beats:
            beat.stop()
        record.close(telemetry=beats[0].count, audio=beats[1].count, commands=telemetry.commands,
                     turned=stick.turned(gimbal))
    if not stopping.is_set():
        print("the encoder ended by itself", file=sys.stderr)
        return 1
    return 0


def main():
    parser = argparse.ArgumentParser(description="A simulated camera; runs on a board.")
    parser.add_argument("--record", required=True, help="folder for the record")
    parser.add_argument("--keep", type=int, default=1 << 28,
                        help="bytes of video kept in the record (%(default)s)")
    arguments = parser.parse_args()
    try:
        return run(Record(arguments.record, arguments.keep))
    except RingError as error:
        print(error, file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
