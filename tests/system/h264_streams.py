"""H.264 streams of several kinds, made by ffmpeg, and what ffmpeg decodes from a stream."""

import re
import subprocess

# As small as they can be: every picture's datagrams fit into a client's socket at once.
PICTURE = "testsrc2=size=160x120:rate=30:duration=1.5"
PICTURES = 45
FAST = ["-preset", "ultrafast", "-tune", "zerolatency", "-g", "15"]
KINDS = {
    "with delimiters": [*FAST, "-bsf:v", "h264_metadata=aud=insert"],
    "without delimiters": [*FAST, "-bsf:v", "h264_metadata=aud=remove"],
    "several slices a picture": [*FAST, "-x264-params", "slices=4:sliced-threads=0"],
    "B-frames": ["-preset", "veryfast", "-bf", "3", "-g", "15"],
    "High profile": ["-preset", "medium", "-g", "15", "-x264-params", "keyint=15:scenecut=0"],
}


def encode(options, picture=PICTURE):
    return subprocess.run(
        ["ffmpeg", "-nostdin", "-v", "error", "-f", "lavfi", "-i", picture, "-pix_fmt", "yuv420p",
         "-c:v", "libx264", *options, "-f", "h264", "-"],
        stdout=subprocess.PIPE, check=True, timeout=60).stdout


def units(stream):
    """The NAL units of a stream, without start codes."""
    return re.split(rb"\x00*\x00\x00\x01", stream)[1:]


def unit_type(unit):
    return unit[0] & 31


def joined(parts, code=b"\0\0\0\1"):
    """The stream of these units."""
    return b"".join(code + unit for unit in parts)


def with_start_codes(stream, code):
    return joined(units(stream), code)


def with_sets_at_the_start_only(stream):
    """Without the parameter sets (types 7 and 8) that follow the first picture."""
    kept, is_begun = [], False
    for unit in units(stream):
        is_begun = is_begun or unit_type(unit) in (1, 5)
        if not is_begun or unit_type(unit) not in (7, 8):
            kept.append(unit)
    return joined(kept)


def layout(stream):
    """The profile and the pixels' layout, as ffprobe sees them: ("Main", "yuv420p")."""
    done = subprocess.run(["ffprobe", "-v", "error", "-f", "h264", "-i", "-", "-show_entries",
                           "stream=profile,pix_fmt", "-of", "csv=p=0"], input=stream,
                          stdout=subprocess.PIPE, check=True, timeout=60)
    return tuple(done.stdout.decode().strip().split(","))


def pictures(stream, level="error", container="h264"):
    """The digests of the pictures that ffmpeg decodes, and its messages."""
    done = subprocess.run(["ffmpeg", "-nostdin", "-v", level, "-f", container, "-i", "-",
                           "-fps_mode", "passthrough", "-f", "framemd5", "-"],
                          input=stream, capture_output=True, check=False, timeout=60)
    return [line.split(b",")[-1].strip() for line in done.stdout.splitlines()
            if not line.startswith(b"#")], done.stderr
