"""docs/architecture.md and the headers' first lines against the sources and a running daemon."""

import itertools
import re
from fnmatch import fnmatch
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


# Modules and layers.

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


def picture_of_subsystems():
    """The lines of the first picture, and the column in which its boxes begin."""
    lines = re.search(r"```\n(.*?)```", DOCUMENT, re.DOTALL)[1].splitlines()
    top = next(line for line in lines if "+---" in line)
    return [line.ljust(len(top)) for line in lines], top.index("+"), top.rindex("+")


def boxes_of_subsystems():
    """Box -> its text and the numbers of its lines, from top to bottom. A box is named by the
    folders or modules at its head."""
    lines, left, right = picture_of_subsystems()
    edges = [number for number, line in enumerate(lines)
             if set(line[left + 1:right]) == {"-"} and line[left] == line[right] == "+"]
    boxes = {}
    for top, bottom in itertools.pairwise(edges):
        inside = [line[left + 1:right] for line in lines[top + 1:bottom]]
        assert all(line[left] == line[right] == "|" for line in lines[top + 1:bottom]), inside
        names = tuple(re.match(r" ([\w/*]+(?:, [\w/*]+)*)(?:  | *$)", inside[0])[1].split(", "))
        assert names not in boxes
        boxes[names] = (inside, range(top + 1, bottom))
    return boxes


def box_of(module):
    """A module's box: the one that names it, or else the one that names its folder."""
    boxes = boxes_of_subsystems()
    found = ([names for names in boxes if any(fnmatch(module, name) for name in names)]
             or [names for names in boxes if module.partition("/")[0] in names])
    assert len(found) == 1, module
    return found[0]


def test_arrows_between_subsystems_are_the_includes():
    boxes = boxes_of_subsystems()
    calls = {names: set() for names in boxes}
    for module, includes in module_includes().items():
        for included in includes:
            if not included.startswith("base/") and box_of(included) != box_of(module):
                assert list(boxes).index(box_of(included)) > list(boxes).index(box_of(module)), \
                    f"{module} includes {included}, whose box is above"
                calls[box_of(module)].add(included.partition("/")[0])
    arrows = {}
    for names, (inside, _) in boxes.items():
        drawn = [re.match(r" +-> ([\w, ]+?)(?:  |$)", line) for line in inside]
        arrows[names] = set().union(*(line[1].split(", ") for line in drawn if line))
    assert arrows == calls


def test_boxes_of_subsystems_name_what_exists():
    modules = set(module_includes())
    known = modules | {module.partition("/")[0] for module in modules}
    for name in itertools.chain(*boxes_of_subsystems()):
        assert any(fnmatch(each, name) for each in known), name


def box_at_the_end_of_the_line(start):
    """The box that a line on the left leads up to, from the row in which it leaves a box."""
    lines, left, _ = picture_of_subsystems()
    column = lines[start].index("+")
    assert set(lines[start][column + 1:left]) == {"-"}
    row = start - 1
    while lines[row][column] == "|":
        row -= 1
    assert lines[row][column] == "+" and lines[row][:left].endswith("->")
    return next(names for names, (_, rows) in boxes_of_subsystems().items() if row in rows)


def test_two_function_pointers_lead_up():
    lines, left, _ = picture_of_subsystems()
    drawn = set()
    for names, (inside, rows) in boxes_of_subsystems().items():
        leaving = [row for row in rows if lines[row][:left].endswith("-")]
        pointers = re.findall(r"\bdispatch_\w+", " ".join(inside))
        assert len(leaving) == len(pointers), names
        drawn |= {(names, box_at_the_end_of_the_line(row), pointer)
                  for row, pointer in zip(leaving, pointers, strict=True)}
    sources = {module_of(path): path.read_text() for path in (REPOSITORY / "src").rglob("*.h")}

    def declared_in(function):
        return next(module for module, text in sources.items()
                    if re.search(rf"^\w+ {function}\(", text, re.MULTILINE))

    handed = re.findall(r"\b(init_\w+)\(\w+, (?:\w+, )?([a-z]\w+_(?:packet|command))\)",
                        (REPOSITORY / "src/core/startup.cpp").read_text())
    assert drawn == {(box_of(declared_in(taker)), box_of(declared_in(pointer)), pointer)
                     for taker, pointer in handed}
    assert len(drawn) == 2


def test_what_is_drawn_around_the_daemon_is_in_the_sources():
    lines, _, right = picture_of_subsystems()
    sources = "".join(path.read_text() for path in (REPOSITORY / "src").rglob("*.[ch]*"))
    around = " ".join(line[right + 1:] for line in lines)
    named = set(re.findall(r"/[a-z]\w*(?:[/.]\w+)*|\b\d{4}\b", around))
    assert len(named) > 10
    for name in named:
        assert re.search(rf"{name.removeprefix('/dev/shm')}\b", sources), name


def picture_of_layers():
    """Module -> layer, read from the picture."""
    picture = re.search(r"```\n(layer \d+ .*?)```", DOCUMENT, re.DOTALL)[1]
    found = {}
    layer, folder, is_after_folder = None, None, False
    for word in re.findall(r"layer \d+|\w+", picture):
        is_folder = (REPOSITORY / "src" / word).is_dir() or word == "include"
        if word.startswith("layer "):
            layer = int(word[6:])
        elif is_folder and not is_after_folder:  # config has a module of its name
            folder = word
        else:
            module = f"{folder}/{word}"
            assert module not in found, f"{module} is in the picture twice"
            found[module] = layer
        is_after_folder = is_folder and not is_after_folder
    return found


def test_every_module_stands_in_the_picture_once():
    assert set(picture_of_layers()) == set(module_includes())


def test_includes_lead_to_lower_layers_only():
    layers = picture_of_layers()
    for module, includes in module_includes().items():
        for included in includes:
            assert layers[included] < layers[module], f"{module} includes {included}"


def test_the_table_of_includes():
    told = {module: {name for name in includes.split(", ") if name}
            for module, includes in table("Module", "Includes")}
    assert told == {module: {name for name in includes if not name.startswith("base/")}
                    for module, includes in module_includes().items()
                    if not module.startswith("base/")}


def test_contributing_has_the_same_layers():
    text = (REPOSITORY / "CONTRIBUTING.md").read_text()
    short = re.search(r"## Layers\n(?s:.*?)\n\n((?:    .*\n)+)", text)[1]
    layer, folder, layers = None, None, {}
    for word in re.findall(r"src/\w+|\w+", short):
        if word.isdigit():
            layer = int(word)
        elif word.startswith("src/") or word == "include":
            folder = word.removeprefix("src/")
        else:
            layers[f"{folder}/{word}"] = layer
    assert layers == picture_of_layers()


# The programs around the daemon.

TOOLS = REPOSITORY / "tools"
LIBRARIES = {"client", "source"}


def tool_includes():
    """Module of tools/ -> the modules of this project that it includes, "?NAME" for a quoted name
    that is none."""
    found = {}
    for source in [*TOOLS.rglob("*.cpp"), *TOOLS.rglob("*.h")]:
        module = str(source.relative_to(TOOLS).with_suffix(""))
        includes = found.setdefault(module, set())
        for quote, name in re.findall(r'^#include (["<])([^">]+)[">]', source.read_text(),
                                      re.MULTILINE):
            path = Path(name).with_suffix("")
            if any((REPOSITORY / folder / name).exists() for folder in ("tools", "src", "include")):
                includes.add(str(path))
            elif quote == '"':
                includes.add(f"?{name}")
        includes.discard(module)
    return found


def is_layout(module):
    """Is this a daemon's header that other programs may include? It has no source file."""
    name = REPOSITORY / "src" / module
    is_one = module.endswith("_layout") or module in (
        "net/relay_packet", "base/bytes", "base/shared_numbers")
    return is_one and name.with_suffix(".h").exists() and not name.with_suffix(".cpp").exists()


def test_programs_include_the_libraries_and_layouts_only():
    folders = {path.name for path in TOOLS.iterdir() if path.is_dir()}
    assert folders > LIBRARIES and len(folders) > 4
    for module, includes in tool_includes().items():
        folder = module.partition("/")[0]
        for included in includes:
            libraries = set() if folder in LIBRARIES else LIBRARIES
            assert included.partition("/")[0] in {folder, *libraries} or is_layout(included), \
                f"tools/{module} includes {included}"


def test_programs_are_linked_with_nothing_of_the_daemon():
    for file in TOOLS.rglob("CMakeLists.txt"):
        text = file.read_text()
        assert "quillorbeacon_parts" not in text, file
        assert not re.search(r"src/\w", text), file


def test_modules_of_programs_do_not_include_each_other_in_a_circle():
    left = {module: {name for name in includes if (TOOLS / f"{name}.h").exists()}
            for module, includes in tool_includes().items()}
    while left:
        lowest = {module for module, includes in left.items() if not includes & set(left)}
        assert lowest, f"among {sorted(left)}"
        left = {module: includes for module, includes in left.items() if module not in lowest}


def test_the_table_of_programs():
    told = {row[0].removeprefix("tools/"): {name for name in row[2].split(", ") if name}
            for row in table("Folder", "What it is", "Includes")}
    found = {}
    for module, includes in tool_includes().items():
        folder = module.partition("/")[0]
        others = {name for name in includes if not name.startswith(f"{folder}/")}
        found.setdefault(folder, set()).update(
            name.partition("/")[0] if name.partition("/")[0] in LIBRARIES else name
            for name in others)
    assert told == found


def test_the_client_library_prints_nothing():
    for source in [*(TOOLS / "client").glob("*.cpp"), *(TOOLS / "client").glob("*.h")]:
        found = re.search(r"\b(stdout|stderr|cout|cerr|clog|perror|f?puts|f?printf|syslog|exit)\b",
                          re.sub(r"//.*", "", source.read_text()))
        assert not found, f"{source} has {found[0]}"


def test_the_layers_of_the_client_library():
    layers = {f"client/{name}": int(row[0]) for row in table("Layer", "Modules of tools/client")
              for name in row[1].split(", ")}
    modules = {module: includes for module, includes in tool_includes().items()
               if module.startswith("client/")}
    assert set(layers) == set(modules)
    for module, includes in modules.items():
        for included in includes & set(modules):
            assert layers[included] < layers[module], f"{module} includes {included}"


# The headers.

def opening_of(header):
    """A header's first comment: its sentence, and what it says the module stands on."""
    lines = re.match(r"#pragma once\n\n((?:// .+\n)+)\n", header.read_text())
    assert lines, f"{header} does not begin with #pragma once, a blank line and a comment"
    sentence, marker, names = lines[1].partition("// Stands on: ")
    return [" ".join(line.removeprefix("// ") for line in part.splitlines())
            for part in (sentence, marker + names)]


def check_opening(header, includes):
    sentence, names = opening_of(header)
    assert re.fullmatch(r"[A-Z](?:(?!\. ).)+\.", sentence), f"{header}: not one sentence"
    shown = {name for name in includes if not name.startswith("base/")} or includes
    expected = f"Stands on: {', '.join(sorted(shown)) or 'nothing else of ours'}."
    assert names == expected, header


def test_every_header_says_what_it_is_for_and_what_it_stands_on():
    modules = module_includes()
    headers = [*(REPOSITORY / "src").rglob("*.h"), *(REPOSITORY / "include").glob("*.h")]
    assert len(headers) > 50
    for header in headers:
        check_opening(header, modules.get(module_of(header), set()))


def test_every_header_of_a_program_does_so_too():
    modules = tool_includes()
    headers = list(TOOLS.rglob("*.h"))
    assert len(headers) > 40
    for header in headers:
        check_opening(header, modules[str(header.relative_to(TOOLS).with_suffix(""))])


# The threads.

def thread_names(daemon):
    """The names of all threads, sorted; a thread without a name has the program's."""
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
    told.remove("free-space")  # only while a disk is asked
    wait_until(lambda: set(thread_names(daemon)) == told, "the capture's thread")


# What it creates.

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
