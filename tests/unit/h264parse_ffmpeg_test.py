"""h264parse with the streams of a real encoder.

ffmpeg encodes a few frames with libx264, the SPS is extracted from the Annex B stream, and
h264parse_print prints the result of h264parse. The expected result is computed in two ways
that share no code with the parser: from the requested size and format, and from
the SPS fields as ffmpeg's bit stream filter lists them.

QUILLORBEACON_BUILD names the build folder, which holds tests/h264parse_print.
"""

import dataclasses
import os
import pathlib
import re
import shutil
import signal
import subprocess

import pytest

pytestmark = pytest.mark.skipif(
    shutil.which("ffmpeg") is None or shutil.which("ffprobe") is None,
    reason="ffmpeg and ffprobe are not installed",
)

# The SPS's crop offsets count in these units of luma pixels: one chroma sample of the format.
CROP_UNITS = {
    "yuv420p": (2, 2),
    "yuv420p10le": (2, 2),
    "yuv422p": (2, 1),
    "yuv444p": (1, 1),
}

FORMATS = {
    "baseline": "yuv420p",
    "main": "yuv420p",
    "high": "yuv420p",
    "high10": "yuv420p10le",
    "high422": "yuv422p",
    "high444": "yuv444p",
}

PROFILE_IDCS = {
    "baseline": 66,
    "main": 77,
    "high": 100,
    "high10": 110,
    "high422": 122,
    "high444": 244,
}

UNCROPPED_SIZES = [(16, 16), (160, 96), (320, 240), (640, 480), (1280, 720), (1920, 1088)]
CROPPED_SIZES = [
    (1920, 1080),
    (854, 480),
    (640, 360),
    (426, 240),
    (18, 22),
    (98, 50),
    (174, 142),
    (350, 286),
    (1366, 768),
]


@dataclasses.dataclass(frozen=True)
class Crop:
    """Crop offsets in the units of the SPS."""

    left: int = 0
    right: int = 0
    top: int = 0
    bottom: int = 0


def crossed(coded_width, coded_height, crop):
    """The sizes h264parse gives: top and bottom off the width, left and right off the height.

    An offset always counts for two pixels, also in 4:2:2 and 4:4:4 (a smaller unit) and in
    interlaced streams (a larger unit).
    """
    return (
        coded_width - 2 * (crop.top + crop.bottom),
        coded_height - 2 * (crop.left + crop.right),
    )


def expected_size(width, height, pixel_format, interlaced):
    """From the picture size alone.

    The encoder codes whole macroblocks of 16x16, in interlaced streams whole pairs of them
    vertically, and crops the excess at the right and at the bottom. The vertical crop unit is
    twice as large in interlaced streams.
    """
    rows = 32 if interlaced else 16
    coded_width = (width + 15) // 16 * 16
    coded_height = (height + rows - 1) // rows * rows
    unit_x, unit_y = CROP_UNITS[pixel_format]
    if interlaced:
        unit_y *= 2
    assert (coded_width - width) % unit_x == 0
    assert (coded_height - height) % unit_y == 0
    crop = Crop(right=(coded_width - width) // unit_x, bottom=(coded_height - height) // unit_y)
    return crossed(coded_width, coded_height, crop)


def run(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, timeout=60, **options)


def encode(path, width, height, profile, interlaced=False, params="", arguments=()):
    x264_params = [params] if params else []
    flags = []
    if interlaced:
        x264_params.append("tff=1")
        flags = ["-flags", "+ildct+ilme"]
    run(
        *("ffmpeg", "-v", "error", "-nostdin", "-y"),
        *("-f", "lavfi", "-i", f"testsrc=size={width}x{height}:rate=25", "-frames:v", "2"),
        *("-pix_fmt", FORMATS[profile], "-c:v", "libx264", "-preset", "veryfast"),
        *("-profile:v", profile, *flags),
        *(("-x264-params", ":".join(x264_params)) if x264_params else ()),
        *arguments,
        *("-f", "h264", str(path)),
    )
    return path


def raw_sps(stream):
    """The first SPS of an Annex B stream, unchanged, without its NAL unit header."""
    starts = [match.end() for match in re.finditer(b"\x00\x00\x01", stream)]
    for start, following in zip(starts, starts[1:] + [len(stream) + 3]):
        # The zeros before a start code belong to it, not to the unit before.
        unit = stream[start : following - 3].rstrip(b"\x00")
        if unit[0] & 0x1F == 7:
            return unit[1:]
    raise AssertionError("the stream has no SPS")


def sps_of(path):
    # h264parse takes the bytes as they are. The encoder inserts a 03 after two zeros to
    # keep start codes out of the SPS; it is not data, so it is removed here.
    return re.sub(b"\x00\x00\x03", b"\x00\x00", raw_sps(path.read_bytes()))


def traced_fields(path):
    """The fields of the first SPS, as ffmpeg's trace_headers filter lists them."""
    trace = run(
        *("ffmpeg", "-nostdin", "-i", str(path), "-c", "copy", "-bsf:v", "trace_headers"),
        *("-f", "null", "-"),
        text=True,
        errors="replace",
    ).stderr
    fields = {}
    in_sps = False
    for line in trace.splitlines():
        line = line.split("] ", 1)[-1]
        if in_sps and not re.match(r"\d+ ", line):
            break
        if line.startswith("Sequence Parameter Set"):
            in_sps = True
        elif in_sps:
            match = re.match(r"\d+\s+(\S+)\s.*= (-?\d+)$", line)
            if match:
                fields[match[1]] = int(match[2])
    return fields


def expected_from(fields):
    crop = Crop()
    if fields["frame_cropping_flag"]:
        crop = Crop(
            left=fields["frame_crop_left_offset"],
            right=fields["frame_crop_right_offset"],
            top=fields["frame_crop_top_offset"],
            bottom=fields["frame_crop_bottom_offset"],
        )
    units = 1 if fields["frame_mbs_only_flag"] else 2
    return crossed(
        16 * (fields["pic_width_in_mbs_minus1"] + 1),
        16 * (fields["pic_height_in_map_units_minus1"] + 1) * units,
        crop,
    )


def probe(path):
    """The picture size, cropped correctly, and the pixel format."""
    answer = run(
        *("ffprobe", "-v", "error", "-select_streams", "v:0"),
        *("-show_entries", "stream=width,height,pix_fmt", "-of", "default=noprint_wrappers=1"),
        str(path),
        text=True,
    ).stdout
    entries = dict(line.split("=", 1) for line in answer.splitlines())
    return int(entries["width"]), int(entries["height"]), entries["pix_fmt"]


@pytest.fixture(scope="session", name="printer")
def fixture_printer():
    build = os.environ.get("QUILLORBEACON_BUILD")
    assert build, "set QUILLORBEACON_BUILD to the build folder"
    program = pathlib.Path(build) / "tests" / "h264parse_print"
    assert program.is_file(), f"{program} is not built"
    return program


def parsed_size(printer, sps):
    width, height = run(str(printer), input=sps).stdout.split()
    return int(width), int(height)


def check(printer, path, width, height, profile, interlaced=False):
    # First check that the stream is the intended one, then the two expectations, then the parser.
    assert probe(path) == (width, height, FORMATS[profile])
    fields = traced_fields(path)
    assert fields["profile_idc"] == PROFILE_IDCS[profile]
    assert fields["frame_mbs_only_flag"] == (0 if interlaced else 1)
    expected = expected_size(width, height, FORMATS[profile], interlaced)
    assert expected_from(fields) == expected
    assert parsed_size(printer, sps_of(path)) == expected


@pytest.mark.parametrize("profile", FORMATS)
@pytest.mark.parametrize("width, height", UNCROPPED_SIZES)
def test_uncropped(printer, tmp_path, profile, width, height):
    path = encode(tmp_path / "stream.h264", width, height, profile)
    check(printer, path, width, height, profile)
    assert parsed_size(printer, sps_of(path)) == (width, height)


@pytest.mark.parametrize("profile", FORMATS)
@pytest.mark.parametrize("width, height", CROPPED_SIZES)
def test_cropped(printer, tmp_path, profile, width, height):
    path = encode(tmp_path / "stream.h264", width, height, profile)
    check(printer, path, width, height, profile)


@pytest.mark.parametrize("width, height", [(427, 241), (99, 51), (17, 31), (33, 16), (16, 33)])
def test_444_may_have_odd_sizes(printer, tmp_path, width, height):
    path = encode(tmp_path / "stream.h264", width, height, "high444")
    check(printer, path, width, height, "high444")


@pytest.mark.parametrize("profile", ["main", "high", "high10", "high422", "high444"])
@pytest.mark.parametrize("width, height", [(1920, 1080), (720, 576), (720, 480), (426, 244)])
def test_interlaced(printer, tmp_path, profile, width, height):
    path = encode(tmp_path / "stream.h264", width, height, profile, interlaced=True)
    check(printer, path, width, height, profile, interlaced=True)


@pytest.mark.parametrize(
    "width, height, size",
    [
        (1920, 1080, (1912, 1088)),  # coded as 1920x1088, 4 off the bottom
        (854, 480, (864, 470)),  # coded as 864x480, 5 off the right
        (640, 360, (632, 368)),  # coded as 640x368, 4 off the bottom
        (426, 240, (432, 234)),  # coded as 432x240, 3 off the right
        (350, 286, (350, 286)),  # coded as 352x288, 1 off the right and 1 off the bottom
        (1366, 768, (1376, 758)),  # coded as 1376x768, 5 off the right
    ],
)
def test_sizes_worked_out_by_hand(printer, tmp_path, width, height, size):
    path = encode(tmp_path / "stream.h264", width, height, "main")
    assert parsed_size(printer, sps_of(path)) == size


@pytest.mark.parametrize("params", ["bframes=0", "bframes=3", "keyint=1", "ref=4", "cqm=jvt"])
def test_encoder_settings(printer, tmp_path, params):
    """Without B-frames the pic_order_cnt_type is 2, with them 0."""
    path = encode(tmp_path / "stream.h264", 854, 476, "high", params=params)
    if params.startswith("bframes"):
        expected_type = 2 if params == "bframes=0" else 0
        assert traced_fields(path)["pic_order_cnt_type"] == expected_type
    check(printer, path, 854, 476, "high")


@pytest.mark.parametrize("interlaced", [False, True])
@pytest.mark.parametrize("profile", ["main", "high", "high422", "high444"])
def test_all_four_crops(printer, tmp_path, profile, interlaced):
    """The encoder crops only at the right and the bottom; a filter sets all four offsets."""
    crop = Crop(left=1, right=3, top=5, bottom=7)
    unit_x, unit_y = CROP_UNITS[FORMATS[profile]]
    if interlaced:
        unit_y *= 2
    # The filter takes luma pixels.
    edges = (
        f"crop_left={crop.left * unit_x}:crop_right={crop.right * unit_x}"
        f":crop_top={crop.top * unit_y}:crop_bottom={crop.bottom * unit_y}"
    )
    source = encode(tmp_path / "source.h264", 320, 256, profile, interlaced)
    path = tmp_path / "stream.h264"
    run(
        *("ffmpeg", "-v", "error", "-nostdin", "-i", str(source), "-c", "copy"),
        *("-bsf:v", f"h264_metadata={edges}", "-f", "h264", str(path)),
    )
    assert probe(path)[:2] == (320 - 4 * unit_x, 256 - 12 * unit_y)
    expected = (320 - 2 * 5 - 2 * 7, 256 - 2 * 1 - 2 * 3)
    assert expected_from(traced_fields(path)) == expected
    assert parsed_size(printer, sps_of(path)) == expected


def test_streams_have_emulation_prevention(tmp_path):
    """The bytes that sps_of removes really occur, so the other tests exercise it."""
    path = encode(tmp_path / "stream.h264", 640, 360, "high")
    raw = raw_sps(path.read_bytes())
    assert b"\x00\x00\x03" in raw
    assert len(sps_of(path)) < len(raw)


def test_truncated_sps_ends_the_process(printer, tmp_path):
    sps = sps_of(encode(tmp_path / "stream.h264", 1920, 1080, "high"))
    sizes = set()
    for length in range(len(sps) + 1):
        done = subprocess.run(
            [str(printer)], input=sps[:length], capture_output=True, check=False, timeout=60
        )
        if done.returncode == 0:
            sizes.add(done.stdout)
            continue
        # Once an SPS is long enough, it stays so.
        assert not sizes
        assert done.returncode == -signal.SIGABRT
        assert done.stdout == b""
        assert done.stderr == b"h264parse: assertion failed: m_nCurrentBit <= m_nLength * 8\n"
    assert sizes == {b"1912 1088\n"}
