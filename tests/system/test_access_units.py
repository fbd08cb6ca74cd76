"""How beacon-sim splits H.264 streams into access units."""

import itertools
import subprocess

import pytest

from conftest import BUILD

FRAMES = 23

# Name -> encoder options. Together they cover: with and without access unit delimiters, one and
# more slices per picture, start codes of three and four bytes, pictures out of order, more than one
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
def stream(request, tmp_path_factory):
    file = tmp_path_factory.mktemp("streams") / "stream.h264"
    file.write_bytes(encode(STREAMS[request.param]))
    return file


def split(file, seed=1, largest=1000):
    """The lengths of the access units of a stream, fed in pieces of 1 to `largest` bytes."""
    text = subprocess.run([BUILD / "tests/access_units_print", file, str(seed), str(largest)],
                          check=True, stdout=subprocess.PIPE, timeout=60).stdout
    return [int(line) for line in text.split()]


def count_pictures(stream, tmp_path):
    """The numbers of packets and pictures that ffprobe finds in a stream."""
    file = tmp_path / "part.h264"
    file.write_bytes(stream)
    text = subprocess.run(
        ["ffprobe", "-v", "error", "-f", "h264", "-count_frames", "-count_packets", "-show_entries",
         "stream=nb_read_frames,nb_read_packets", "-of", "csv=p=0", str(file)],
        check=True, capture_output=True, text=True, timeout=60)
    assert text.stderr == ""
    return [int(number) for number in text.stdout.strip().strip(",").split(",")]


def test_piece_sizes_do_not_matter(stream):
    whole = split(stream, largest=1 << 20)
    for seed, largest in enumerate((1, 2, 3, 5, 50, 700, 3000, 20000)):
        assert split(stream, seed, largest) == whole


def test_each_unit_is_one_picture(stream, tmp_path):
    """A stream cut before any access unit holds as many pictures as units."""
    units = split(stream)
    data = stream.read_bytes()
    assert len(units) == FRAMES and sum(units) == len(data)
    assert count_pictures(data, tmp_path) == [FRAMES, FRAMES]
    ends = list(itertools.accumulate(units))
    for count in (1, 2, 5, FRAMES - 1):
        assert count_pictures(data[:ends[count - 1]], tmp_path) == [count, count]
