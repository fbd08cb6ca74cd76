"""The splitting of H.264 streams into access units, as the simulated camera does it."""

import random
import subprocess
import sys

import pytest

from conftest import REPOSITORY

sys.path.insert(0, str(REPOSITORY / "sim"))

from access_units import AccessUnitSplitter  # noqa: E402

FRAMES = 23

# Name -> encoder options. Between them: with and without access unit delimiters, one and several
# slices per picture, start codes of three and four bytes, pictures out of order, more than one
# parameter set or SEI before a picture, slices cut to a size.
STREAMS = {
    "plain": ["-preset", "ultrafast"],
    "delimiters": ["-preset", "ultrafast", "-x264-params", "aud=1:repeat-headers=1"],
    "slices": ["-preset", "ultrafast", "-x264-params", "slices=4"],
    "slices and delimiters": ["-preset", "ultrafast", "-x264-params", "slices=5:aud=1"],
    "small slices": ["-preset", "ultrafast", "-x264-params", "slice-max-size=400"],
    "headers with each key frame": ["-g", "3", "-x264-params", "repeat-headers=1:keyint=3"],
    "pictures out of order": ["-bf", "3", "-preset", "medium", "-g", "9"],
    "timing SEI": ["-preset", "ultrafast", "-x264-params", "nal-hrd=cbr:aud=0",
                   "-b:v", "1M", "-maxrate", "1M", "-bufsize", "500k"],
    "sliced threads": ["-preset", "ultrafast", "-tune", "zerolatency", "-threads", "3"],
}


def encode(options):
    return subprocess.run(
        ["ffmpeg", "-nostdin", "-v", "error", "-f", "lavfi", "-i", "testsrc2=size=176x144:rate=25",
         "-frames:v", str(FRAMES), "-pix_fmt", "yuv420p", "-c:v", "libx264", *options,
         "-f", "h264", "pipe:1"], check=True, stdout=subprocess.PIPE, timeout=60).stdout


@pytest.fixture(scope="module", params=STREAMS)
def stream(request):
    return encode(STREAMS[request.param])


def split(stream, sizes):
    """Splits a stream that comes in pieces of sizes()."""
    splitter = AccessUnitSplitter()
    units = []
    at = 0
    while at < len(stream):
        size = sizes()
        units += splitter.push(stream[at:at + size])
        at += size
    return units + splitter.flush()


def count_pictures(stream, tmp_path):
    """How many packets and how many pictures ffprobe finds in a stream."""
    file = tmp_path / "part.h264"
    file.write_bytes(stream)
    text = subprocess.run(
        ["ffprobe", "-v", "error", "-f", "h264", "-count_frames", "-count_packets", "-show_entries",
         "stream=nb_read_frames,nb_read_packets", "-of", "csv=p=0", str(file)],
        check=True, capture_output=True, text=True, timeout=60)
    assert text.stderr == ""
    return [int(number) for number in text.stdout.strip().strip(",").split(",")]


def test_units_are_the_stream(stream):
    assert b"".join(split(stream, lambda: 4096)) == stream


def test_one_unit_per_frame(stream):
    assert len(split(stream, lambda: len(stream))) == FRAMES


@pytest.mark.parametrize("seed", range(8))
def test_piece_sizes_do_not_matter(stream, seed):
    chosen = random.Random(seed)
    largest = chosen.choice([2, 5, 50, 3000])
    assert (split(stream, lambda: chosen.randint(1, largest))
            == split(stream, lambda: len(stream)))


def test_each_unit_is_one_picture(stream, tmp_path):
    """The stream cut before any unit holds as many pictures as it holds units."""
    units = split(stream, lambda: 1000)
    assert count_pictures(stream, tmp_path) == [FRAMES, FRAMES]
    for count in (1, 2, 5, FRAMES - 1):
        assert count_pictures(b"".join(units[:count]), tmp_path) == [count, count]


def test_unit_is_given_as_soon_as_the_next_begins():
    stream = encode(STREAMS["delimiters"])
    units = split(stream, lambda: len(stream))
    splitter = AccessUnitSplitter()
    # A delimiter is told by its start code, its type and one byte more.
    assert splitter.push(units[0] + units[1][:5]) == []
    assert splitter.push(units[1][5:6]) == [units[0]]


def test_next_stream_after_flush():
    stream = encode(STREAMS["plain"])
    splitter = AccessUnitSplitter()
    for _ in range(2):
        assert b"".join(splitter.push(stream) + splitter.flush()) == stream
    assert splitter.flush() == []
