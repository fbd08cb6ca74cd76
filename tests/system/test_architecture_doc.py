"""docs/architecture.md against the sources and a running daemon: rooms, threads, what it makes."""

import re
from pathlib import Path

import pytest

from conftest import BUILD, CONFIG, REPOSITORY, wait_until

DOCUMENT = (REPOSITORY / "docs/architecture.md").read_text()
SLOW_MODEL = "Raspberry Pi Zero 2 W"
BOARDS = [pytest.param(None, {"all", "not slow"}, id="normal"),
          pytest.param(SLOW_MODEL, {"all"}, id="slow")]


def table(*heading):
    """The rows of the document's one table whose heading begins so, as lists of cells."""
    start = "| " + " | ".join(heading) + " |"
    found = [part for part in DOCUMENT.split("\n\n") if part.startswith(start)]
    assert len(found) == 1, start
    return [[cell.strip().strip("`") for cell in line.strip("|").split("|")]
            for line in found[0].splitlines()[2:]]


def names_on(rows, boards, board_column):
    return {row[0] for row in rows if row[board_column] in boards}


# The rooms.

def module_includes():
    """Module -> the modules of this project that it includes, base among them."""
    found = {}
    sources = [*(REPOSITORY / "src").rglob("*.cpp"), *(REPOSITORY / "src").rglob("*.h"),
               *(REPOSITORY / "include").iterdir()]
    for source in sources:
        if source.parent.name == "gpio_absent":  # a library of its own
            continue
        module = module_of(source)
        includes = found.setdefault(module, set())
        for name in re.findall(r'^#include ["<]([^">]+)[">]', source.read_text(), re.MULTILINE):
            for folder in ("src", "include"):
                if (REPOSITORY / folder / name).exists():
                    includes.add(module_of(REPOSITORY / folder / name))
        includes.discard(module)
    return found


def module_of(source):
    path = source.relative_to(REPOSITORY).with_suffix("")
    return str(path.relative_to("src") if path.parts[0] == "src" else path)


def picture_of_rooms():
    """Module -> floor, read from the picture."""
    picture = re.search(r"```\n(floor 11 .*?)```", DOCUMENT, re.DOTALL)[1]
    found = {}
    floor, house, is_behind_house = None, None, False
    for word in re.findall(r"floor \d+|\w+", picture):
        is_house = (REPOSITORY / "src" / word).is_dir() or word == "include"
        if word.startswith("floor "):
            floor = int(word[6:])
        elif is_house and not is_behind_house:  # config has a module of its name
            house = word
        else:
            module = f"{house}/{word}"
            assert module not in found, f"{module} stands in the picture twice"
            found[module] = floor
        is_behind_house = is_house and not is_behind_house
    return found


def test_every_module_stands_in_the_picture_once():
    assert set(picture_of_rooms()) == set(module_includes())


def test_includes_lead_to_lower_floors_only():
    rooms = picture_of_rooms()
    for module, includes in module_includes().items():
        for included in includes:
            assert rooms[included] < rooms[module], f"{module} includes {included}"


def test_the_table_of_includes():
    told = {module: {name for name in includes.split(", ") if name}
            for module, includes in table("Module", "Includes")}
    assert told == {module: {name for name in includes if not name.startswith("base/")}
                    for module, includes in module_includes().items()
                    if not module.startswith("base/")}


def test_contributing_has_the_same_floors():
    text = (REPOSITORY / "CONTRIBUTING.md").read_text()
    short = re.search(r"## The house\n(?s:.*?)\n\n((?:    .*\n)+)", text)[1]
    floor, house, floors = None, None, {}
    for word in re.findall(r"src/\w+|\w+", short):
        if word.isdigit():
            floor = int(word)
        elif word.startswith("src/") or word == "include":
            house = word.removeprefix("src/")
        else:
            floors[f"{house}/{word}"] = floor
    assert floors == picture_of_rooms()


# The threads.

def thread_names(daemon):
    """The names of all threads, sorted; a thread that has none bears the program's."""
    names = []
    for task in Path(f"/proc/{daemon.pid}/task").iterdir():
        try:
            names.append((task / "comm").read_text().strip())
        except (FileNotFoundError, ProcessLookupError):
            pass  # ended meanwhile
    return sorted(names)


@pytest.mark.parametrize("model, boards", BOARDS)
def test_threads(start, model, boards):
    daemon = start(model=model)
    told = sorted(names_on(table("Thread", "Boards"), boards, 1))
    if "tsan" in BUILD.name:
        told = sorted([*told, "quillorbeacon"])  # the sanitizer's own
    wait_until(lambda: thread_names(daemon) == told, f"exactly the threads {told}")


def test_the_thread_of_a_capture(board, start):
    program = board.path("/sys/board/bin/raspivid")
    program.unlink()
    program.write_text("#!/sys/board/sh\necho picture\nexec sleep 60\n")
    program.chmod(0o755)
    daemon = start("internal_camera_enabled=1\n")
    told = {row[0] for row in table("Thread", "Boards")}
    assert "camera-capture" in told
    wait_until(lambda: set(thread_names(daemon)) == told, "the capture's thread")


# What it makes.

def names_in(board, folder):
    return {f"{folder}/{entry.name}" for entry in board.path(folder).iterdir()}


@pytest.mark.parametrize("model, boards", BOARDS)
def test_shared_memory_and_files(board, start, model, boards):
    start(model=model)
    objects = table("Object", "Bytes", "Boards")
    sizes = {row[0]: int(row[1]) for row in objects if row[2] in boards}
    assert {entry.name: entry.stat().st_size
            for entry in board.path("/dev/shm").iterdir()} == sizes
    assert all(entry.stat().st_mode & 0o777 == 0o600
               for entry in board.path("/dev/shm").iterdir())
    files = names_on(table("File", "Boards"), boards, 1) | {CONFIG}
    wait_until(lambda: names_in(board, "/run/quillorbeacon") == files, f"exactly {files}")


def test_files_made_on_request(board, start, make_client):
    daemon, client = start(), make_client()
    client.send(b'{"cmd":"updateconfig","param":"make_preview","value":"1"}')
    client.send(b'{"cmd":"updateconfig","param":"rec","value":"1"}')
    files = names_on(table("File", "Boards"), {"on request"}, 1)
    assert len(files) == 3
    board.path(CONFIG).unlink()
    client.send(b'{"cmd":"updateconfig","param":"make_preview","value":"0"}')
    wait_until(lambda: all(board.path(name).exists() for name in files), "the files")
    assert daemon.alive()


def open_ports(daemon):
    found = set()
    for kind in ("UDP", "TCP"):
        lines = Path(f"/proc/{daemon.pid}/net/{kind.lower()}").read_text().splitlines()[1:]
        for line in lines:
            address, port = line.split()[1].split(":")
            assert address == "00000000", line  # open on every address
            found.add(f"{kind} {int(port, 16)}")
    return found


@pytest.mark.parametrize("model, boards", BOARDS)
def test_ports(start, model, boards):
    daemon = start(model=model)
    assert open_ports(daemon) == names_on(table("Port", "Boards"), boards, 1)


def test_ends():
    header = (REPOSITORY / "src/base/process_end.h").read_text()
    numbers = set(re.findall(r"exit_status_\w+ = (\d+);", header))
    assert {row[0] for row in table("Status", "Why")} == numbers | {"SIGABRT"}
