"""The recorder, with the real daemon, and ffprobe reading its films."""

import json
import os
import signal
import subprocess
import time
from pathlib import Path

import pytest

from board import EMULATOR, promised
from conftest import BUILD, MEDIA, wait_until
from h264_streams import (FAST, KINDS, PICTURES, encode, pictures, unit_type, units,
                          with_sets_at_the_start_only, with_start_codes)
from viewer import Program

pytestmark = pytest.mark.skipif(bool(EMULATOR), reason="not built for another processor")

QUIET = "recording_place=2\naudio_enabled=1\n"
MARKER = "/run/quillorbeacon/recorder-enabled"
NUMBER = "/run/quillorbeacon/recorder.info"
PICTURE = ["test", "--size", "160x120", "--bitrate", "300", "--telemetry", "none"]


@pytest.fixture
def run(board, tmp_path):
    """run(program, option, ...): a program of the media package on the board."""
    number = iter(range(20))

    def make(program, *options, **started):
        return Program(board, tmp_path, BUILD / program, *options,
                       name=f"{program.split('/')[-1]}{next(number)}", env=MEDIA, **started)

    return make


@pytest.fixture
def record(board, run):
    """record(): a recorder that is ready for the daemon's signal."""
    def begin():
        recorder = run("media/recorder")
        wait_until(lambda: number(board) == 0, "the recorder")
        return recorder

    return begin


@pytest.fixture
def switch(make_client):
    """switch(on): a client's command to record, or not."""
    client = make_client()
    return lambda on: client.send(b'{"cmd":"updateconfig","param":"rec","value":"%d"}' % on)


def films(board):
    return sorted(board.path("/media").glob("DCIM/*/*.mp4"))


def number(board):
    path = board.path(NUMBER)
    return int(path.read_text()) if path.exists() else None


def probe(film):
    """The film's video stream as ffprobe sees it, and the kinds of its streams."""
    done = subprocess.run(
        ["ffprobe", "-v", "error", "-count_frames", "-show_entries",
         "stream=codec_name,codec_type,nb_read_frames,width,height,duration:format=duration",
         "-of", "json", film], capture_output=True, text=True, check=True, timeout=60)
    found = json.loads(done.stdout)
    streams = {stream["codec_type"]: stream for stream in found["streams"]}
    return streams["video"], sorted(streams), float(found["format"]["duration"]), done.stderr


def frames(film):
    return int(probe(film)[0]["nb_read_frames"])


def wait_number(board, least, timeout=30.0):
    wait_until(lambda: (number(board) or 0) >= least, f"{least} s recorded", timeout)


def begin_sound(board, run, daemon):
    """Before the picture comes: where sound begins later, another film begins with it."""
    board.write("/tmp/.asoundrc", "pcm.!default null\n")
    sound = run("media/gst-audio-src")
    daemon.wait_error("Audio found", timeout=30.0)
    return sound


def test_a_film_has_every_frame(board, start, run, record, switch):
    """From the first key frame until recording ends, with sound and a preview."""
    daemon = start(QUIET + "make_preview=1\n")
    recorder = record()
    switch(True)
    daemon.wait_error("New client connected from 127.0.0.1")
    begin_sound(board, run, daemon)
    source = run("beacon-source", *PICTURE)
    wait_number(board, 2)
    assert source.end() == 0
    published = int(source.out.read_text().split()[1])
    switch(False)
    recorder.complains(" frames, ")
    film, = films(board)
    video, kinds, seconds, errors = probe(film)
    assert int(video["nb_read_frames"]) == published and errors == ""
    assert (video["codec_name"], video["width"], video["height"]) == ("h264", 160, 120)
    assert seconds > published / 30 - 1.0
    assert kinds == ["audio", "video"]
    preview = film.with_suffix(".jpg").read_bytes()
    assert preview.startswith(b"\xff\xd8") and len(preview) > 500
    assert film.parent.name == time.strftime("%Y%m%d", time.localtime(film.stat().st_mtime))
    wait_until(lambda: number(board) == 0, "no film")
    assert recorder.end() == 0
    lines = [line for line in recorder.err.read_text().splitlines()
             if "no picture has come yet" not in line]  # the source may start slowly
    assert len(lines) == 2 and lines[0].startswith("recorder: recording /media/DCIM/"), lines
    assert f", {published} frames, " in lines[1]


def test_a_killed_recorder_leaves_a_film_and_goes_on(board, start, run, record, switch):
    start(QUIET)
    source = run("beacon-source", *PICTURE)
    recorder = record()
    switch(True)
    wait_number(board, 3)
    os.kill(recorder.pid, signal.SIGKILL)
    film, = films(board)
    # All but the last fragments, of half a second each.
    _, _, seconds, errors = probe(film)
    assert 60 <= frames(film) and seconds >= 2.0 and errors == ""
    run("media/recorder")
    wait_until(lambda: len(films(board)) == 2, "another film")
    wait_number(board, 1)
    source.end()


def test_another_picture_size_is_another_film(board, start, run, record, switch):
    daemon = start(QUIET)
    recorder = record()
    switch(True)
    daemon.wait_error("New client connected from 127.0.0.1")
    small = encode(FAST)
    large = encode(FAST, "testsrc2=size=320x240:rate=30:duration=1.5")
    board.write("/tmp/film.h264", small)
    board.write("/tmp/other.h264", large)
    assert run("beacon-source", "/tmp/film.h264").process.wait(30) == 0
    assert run("beacon-source", "/tmp/other.h264").process.wait(30) == 0
    wait_until(lambda: len(films(board)) == 2, "two films")
    switch(False)
    recorder.complains(" frames, ", 2)
    assert sorted((probe(film)[0]["width"], frames(film)) for film in films(board)) == [
        (160, PICTURES), (320, PICTURES)]


def test_the_daemon_goes_and_comes(board, start, run, record, switch):
    daemon = start(QUIET)
    source = run("beacon-source", *PICTURE)
    recorder = record()
    switch(True)
    wait_number(board, 1)
    daemon.kill()
    daemon = start(QUIET)
    begin = time.monotonic()
    daemon.wait_error("New client connected from 127.0.0.1")
    assert time.monotonic() - begin < promised(2.0)
    wait_number(board, number(board) + 2)
    film, = films(board)  # it goes on in the same film
    source.end()
    switch(False)
    recorder.complains(" frames, ")
    assert probe(film)[3] == ""


def test_recording_by_the_settings(board, start, run, record, switch):
    """Without a client's command, from the start; a client's command ends it."""
    start(QUIET + "recording_enabled=1\n")
    run("beacon-source", *PICTURE)
    recorder = record()
    wait_number(board, 1)
    assert not board.path(MARKER).exists()
    switch(False)
    recorder.complains(" frames, ")
    wait_until(lambda: number(board) == 0, "no film")
    assert len(films(board)) == 1


def test_the_settings_hold_again_when_the_daemon_starts_again(board, start, run, record, switch):
    """A client had switched recording off; that is forgotten with the daemon's restart."""
    settings = QUIET + "recording_enabled=1\n"
    daemon = start(settings)
    run("beacon-source", *PICTURE)
    recorder = record()
    wait_number(board, 1)
    switch(False)
    recorder.complains(" frames, ")
    daemon.kill()
    start(settings)
    wait_until(lambda: len(films(board)) == 2, "another film", 30.0)
    switch(False)
    recorder.complains(" frames, ", 2, timeout=30.0)
    assert len(films(board)) == 2


def test_a_full_disk_is_one_line(board, start, run, record, switch):
    """64 MB stay free; with less, nothing is recorded, and with more again, it is."""
    start(QUIET)
    board.run("/usr/bin/mount", "-t", "tmpfs", "-o", "size=70m", "none", "/media")
    run("beacon-source", *PICTURE)
    recorder = record()
    switch(True)
    wait_number(board, 1)
    board.write("/media/large", bytes(12_000_000))
    recorder.complains("not recording: less than 64 MB are free on /media")
    recorder.complains(" frames, ")
    film, = films(board)
    assert frames(film) > 20
    board.path("/media/large").unlink()
    wait_until(lambda: len(films(board)) == 2, "another film")
    assert recorder.err.read_text().count("less than 64 MB") == 1


def test_a_folder_that_cannot_be_written_is_one_line(board, start, run, record, switch):
    start(QUIET)
    board.write("/media/DCIM", b"a file")
    run("beacon-source", *PICTURE)
    recorder = record()
    switch(True)
    recorder.complains("not recording: cannot make /media/DCIM/")
    wait_number(board, 0)
    board.path("/media/DCIM").unlink()
    wait_until(lambda: films(board), "a film")
    assert recorder.err.read_text().count("not recording") == 1


def test_a_stick_that_is_read_only_is_one_line(board, start, run, record, switch):
    """The day's folder may be there already."""
    start(QUIET)
    board.run("/usr/bin/mount", "-t", "tmpfs", "-o", "size=200m", "none", "/media")
    now = time.time()
    for day in (now, now + 86400):
        folder = time.strftime("/media/DCIM/%Y%m%d", time.localtime(day))
        board.path(folder).mkdir(parents=True)
    board.run("/usr/bin/mount", "-o", "remount,ro", "/media")
    run("beacon-source", *PICTURE)
    recorder = record()
    switch(True)
    recorder.complains("not recording: cannot write films on /media: Read-only file system",
                       timeout=60.0)
    time.sleep(5.0)  # two more tries
    board.run("/usr/bin/mount", "-o", "remount,rw", "/media")
    wait_until(lambda: films(board), "a film", 30.0)
    assert recorder.err.read_text().count("cannot write films") == 1


def test_a_preview_does_not_replace_a_photo(board, start, run, record, switch):
    """One of the same second has another name than the film and its preview."""
    start(QUIET + "make_preview=1\n")
    photos = [board.write("/media" + time.strftime("/DCIM/%Y%m%d/%H%M%S.jpg",
                                                   time.localtime(second)), b"a photo")
              for second in range(int(time.time()), int(time.time()) + 300)]
    run("beacon-source", *PICTURE)
    record()
    switch(True)
    wait_number(board, 1)
    film, = films(board)
    wait_until(film.with_suffix(".jpg").exists, "the preview")
    assert film.stem.endswith("-2")
    assert all(photo.read_bytes() == b"a photo" for photo in photos)


def test_a_vanished_stick_is_one_line(board, start, run, record, switch):
    """The film is gone with it; the next one is where the daemon wants films now."""
    start(QUIET)
    stick = ["/usr/bin/mount", "-t", "tmpfs", "-o", "size=200m", "none", "/media"]
    board.run(*stick)
    run("beacon-source", *PICTURE)
    recorder = record()
    switch(True)
    wait_number(board, 1)
    lost, = films(board)
    board.run("/usr/bin/umount", "--lazy", "/media")
    recorder.complains(" but it is gone: was the drive removed?")
    wait_until(lambda: films(board), "another film", 30.0)
    board.run(*stick)  # it is back, above what was written meanwhile
    recorder.complains(" but it is gone: was the drive removed?", 2)
    wait_until(lambda: films(board), "a film on the stick", 30.0)
    wait_number(board, 2)
    switch(False)
    wait_until(lambda: number(board) == 0, "no film", 30.0)
    assert sum(map(frames, films(board))) > 30
    lines = recorder.err.read_text().splitlines()
    kinds = ["recording" if ": recording /media/DCIM/" in line else
             "gone" if line.endswith(" but it is gone: was the drive removed?") else
             "whole" if line.endswith(" MB") else line for line in lines]
    assert kinds == ["recording", "gone", "recording", "gone", "recording", "whole"]
    assert str(lost).rpartition("/")[2] in lines[1]


@pytest.mark.parametrize("call", ["write", "fdatasync"])
def test_a_stick_with_errors_is_one_line(board, start, run, switch, tmp_path, call):
    """The recorder tries again without a word, and says when it works."""
    library = tmp_path / "failing_stick.so"
    subprocess.run(["cc", "-shared", "-fPIC", "-o", library,
                    Path(__file__).with_name("failing_stick.c"), "-ldl"], check=True)
    board.write("/tmp/failing_stick.so", library.read_bytes())
    start(QUIET)
    run("beacon-source", *PICTURE)
    recorder = Program(board, tmp_path, BUILD / "media/recorder",
                       env={**MEDIA, "LD_PRELOAD": "/tmp/failing_stick.so",
                            "ASAN_OPTIONS": MEDIA["ASAN_OPTIONS"] + ":verify_asan_link_order=0"})
    wait_until(lambda: number(board) == 0, "the recorder", 30.0)
    switch(True)
    wait_number(board, 1)
    bad = f"/tmp/bad-{call}"
    board.write(bad, "")
    recorder.complains("recorder: not recording: ", timeout=60.0)
    time.sleep(5.0)  # two more tries
    board.path(bad).unlink()
    recorder.complains("recorder: recording /media/DCIM/", 2, timeout=60.0)
    wait_number(board, 2)
    switch(False)
    recorder.complains(" MB\n", timeout=60.0)
    lines = recorder.err.read_text().splitlines()
    kinds = [line.split(": ")[1].split("/")[0] for line in lines]
    assert kinds == ["recording ", "", "not recording", "recording ", ""], lines
    assert probe(films(board)[-1])[3] == "" and frames(films(board)[-1]) > 30


def as_they_come(stream):
    return stream


@pytest.mark.parametrize("kind, change", [
    ("B-frames", as_they_come),
    ("several slices a picture", lambda stream: with_start_codes(stream, b"\0\0\1")),
    ("without delimiters", with_sets_at_the_start_only),
], ids=["B-frames", "slices, short start codes", "sets at the start"])
def test_a_film_of_any_encoder_has_every_picture(board, start, run, record, switch, kind, change):
    daemon = start(QUIET)
    recorder = record()
    switch(True)
    daemon.wait_error("New client connected from 127.0.0.1")
    stream = change(encode(KINDS[kind]))
    board.write("/tmp/film.h264", stream)
    assert run("beacon-source", "/tmp/film.h264").process.wait(60) == 0
    wait_until(lambda: films(board), "a film", 30.0)
    switch(False)
    recorder.complains(" frames, ")
    film, = films(board)
    assert frames(film) == PICTURES and probe(film)[3] == ""
    raw = subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-i", film, "-c", "copy", "-bsf:v",
                          "h264_mp4toannexb", "-f", "h264", "-"],
                         stdout=subprocess.PIPE, check=True, timeout=60).stdout
    assert pictures(raw) == pictures(stream) and len(pictures(raw)[0]) == PICTURES


def test_a_source_of_another_make(board, start, record, switch, make_producer):
    """It publishes slices, short start codes, and parameter sets only once, in the ring itself."""
    daemon = start(QUIET)
    recorder = record()
    switch(True)
    daemon.wait_error("New client connected from 127.0.0.1")
    stream = with_sets_at_the_start_only(encode(KINDS["several slices a picture"]))
    producer = make_producer()
    for picture in access_units(stream):
        producer.publish(picture)
        time.sleep(0.01)
    wait_until(lambda: films(board), "a film", 30.0)
    wait_number(board, 0)
    switch(False)
    recorder.complains(" frames, ")
    film, = films(board)
    assert frames(film) == PICTURES and probe(film)[3] == ""


def test_after_the_daemon_was_gone_a_film_goes_on_with_a_key_frame(board, start, record, switch,
                                                                   make_producer):
    """Pictures that follow some that nobody got are left out."""
    daemon = start(QUIET)
    recorder = record()
    switch(True)
    daemon.wait_error("New client connected from 127.0.0.1")
    stream = access_units(encode([*FAST, "-g", "500"]))
    half = len(stream) // 2

    def publish(units_of_pictures):
        producer = make_producer()
        for picture in units_of_pictures:
            producer.publish(picture)
            time.sleep(0.01)

    publish(stream[:half])
    wait_until(lambda: films(board), "a film", 30.0)
    daemon.kill()
    time.sleep(4.0)  # the helpers look every two seconds whether it is there
    daemon = start(QUIET)
    daemon.wait_error("New client connected from 127.0.0.1", timeout=30.0)
    publish(stream[half:])
    publish(stream)
    wait_number(board, 0)
    switch(False)
    recorder.complains(" frames, ")
    film, = films(board)
    # A picture is whole when the next one begins: the last before the gap is, with the first after.
    assert frames(film) == half + len(stream)


def test_after_the_daemon_was_back_at_once_a_film_goes_on_with_a_key_frame(
        board, start, record, switch, make_producer):
    """So soon that the helpers do not ask meanwhile whether it is there."""
    daemon = start(QUIET)
    recorder = record()
    switch(True)
    daemon.wait_error("New client connected from 127.0.0.1", timeout=30.0)
    stream = access_units(encode([*FAST, "-g", "500"]))
    half = len(stream) // 2
    before = 8 * stream + stream[:half]  # more than a new daemon sends until the helpers are back
    producer = make_producer()
    for picture in before:
        producer.publish(picture)
        time.sleep(0.005)
    wait_until(lambda: films(board), "a film", 30.0)
    wait_until(lambda: not producer.is_ready((producer.next_slot - 1) % 200), "all taken")
    time.sleep(0.5)  # they are in the recorder's hands
    os.kill(recorder.pid, signal.SIGSTOP)
    daemon.kill()
    daemon = start(QUIET)
    os.kill(recorder.pid, signal.SIGCONT)
    daemon.wait_error("New client connected from 127.0.0.1", timeout=30.0)
    producer = make_producer()
    for picture in stream[half:] + stream:
        producer.publish(picture)
        time.sleep(0.01)
    wait_until(lambda: not producer.is_ready((producer.next_slot - 1) % 200), "all taken")
    time.sleep(1.0)
    switch(False)
    recorder.complains(" frames, ")
    film, = films(board)
    assert frames(film) == len(before) + len(stream)


def access_units(stream):
    """Its pictures, with what stands before each, and start codes of three bytes."""
    found = [b""]
    for unit in units(stream):
        is_first_slice = unit_type(unit) in (1, 5) and unit[1] & 0x80
        is_begun = any(unit_type(old) in (1, 5) for old in units(found[-1]))
        if is_begun and (is_first_slice or unit_type(unit) not in (1, 5)):
            found.append(b"")
        found[-1] += b"\0\0\1" + unit
    return found


def test_no_picture_to_begin_with_is_one_line(start, run, record, switch):
    start(QUIET)
    recorder = record()
    switch(True)
    recorder.complains("not recording: no picture has come yet", timeout=60.0)
    source = run("beacon-source", *PICTURE)
    recorder.complains(": recording /media/DCIM/", timeout=60.0)
    source.end()
    switch(False)
    recorder.complains(" frames, ")
    assert recorder.err.read_text().count("not recording") == 1


def test_sound_that_ends_does_not_hold_the_pictures_up(board, start, run, record, switch):
    """They are in the file even when the recorder is killed: silence stands for the sound."""
    daemon = start(QUIET)
    recorder = record()
    switch(True)
    daemon.wait_error("New client connected from 127.0.0.1")
    sound = begin_sound(board, run, daemon)
    run("beacon-source", *PICTURE)
    wait_number(board, 1)
    sound.end()
    film, = films(board)
    seconds = number(board)
    wait_number(board, seconds + 5)
    wait_until(lambda: probe(film)[2] > seconds + 3, "the pictures in the file", 30.0, 0.5)
    os.kill(recorder.pid, signal.SIGKILL)
    video, kinds, length, errors = probe(film)
    assert kinds == ["audio", "video"] and length > seconds + 3 and errors == ""
    assert int(video["nb_read_frames"]) > 30 * seconds + 30
