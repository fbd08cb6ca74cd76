"""Changes settings as a client does, and records what the daemon then does."""

import json
import subprocess

from conftest import CONFIG, wait_until

BOOT_FILE = "/boot/quillorbeacon.conf"
SAVE = ["mount -o rw,remount /boot", "umount /boot", "mount /boot",
        "cat /boot/quillorbeacon.conf | sed 's/\r$//' > /run/quillorbeacon/config.conf"]

# Printed and run by other threads, at any time.
OTHER_ERRORS = ("parse_packet json ", "UDP server: ", "TCP server: ", "No free space on ",
                "int cam ", "Internal cam ", "raspivid ")
OTHER_COMMANDS = ("mount /dev/", "raspivid ")

# A stand-in that logs its call and then waits while the file /tmp/hold/NAME exists.
HOLDING_STAND_IN = b"""#!/sys/board/sh
name=${0##*/}
printf '%s\\n' "$name${*:+ $*}" >> /sys/board/log
while [ -e "/tmp/hold/$name" ]; do sleep 0.02; done
[ ! -e "/sys/board/$name.out" ] || cat "/sys/board/$name.out"
printf '%s\\n' "$name ends" >> /sys/board/ends
"""


def update_text(param, *values, **members):
    """An "updateconfig" command; values that are None are left out."""
    command = {"cmd": "updateconfig", "param": param}
    for number, value in enumerate(values, 1):
        if value is not None:
            command["value" if number == 1 else f"value{number}"] = value
    return json.dumps({**command, **members}).encode()


def install(board, path, script):
    """Replaces a program on the board with our own."""
    target = board.path(path)
    if target.is_symlink() or target.exists():
        target.unlink()
    board.write(path, script)
    target.chmod(0o755)


def hold(board, name, path=None):
    """Makes the stand-in `name` wait from now until release(board, name)."""
    board.write(f"/tmp/hold/{name}", "")
    install(board, path or f"/sys/board/bin/{name}", HOLDING_STAND_IN)


def release(board, name):
    board.path(f"/tmp/hold/{name}").unlink()


def log_lines(board):
    """The lines of the board's log without storage mounts, split at line feeds only."""
    text = board.path("/sys/board/log").read_bytes().decode(errors="surrogateescape")
    return [line for line in text.split("\n") if "mount /dev/" not in line]


def parse_settings(content):
    """The keys and values of a configuration file; the values are unchanged."""
    settings = {}
    for line in content.decode(errors="surrogateescape").split("\n"):
        key, equals, value = line.removesuffix("\r").partition("=")
        if equals and not line.startswith("#"):
            assert key not in settings, key
            settings[key] = value
    return settings


def running(board, name):
    """The process ids that pidof prints."""
    found = subprocess.run(board.command("pidof", name), stdout=subprocess.PIPE, check=False)
    return found.stdout.decode().split()


def spawn(board, name, count=1):
    """Starts a real program of that name on the board; then `count` of them are running."""
    program = f"/tmp/programs/{name}"
    if not board.path(program).exists():
        board.write(program, board.path("/bin/sleep").read_bytes()).chmod(0o755)
    process = board.popen(program, "1000")
    wait_until(lambda: len(running(board, name)) == count, f"{name} running")
    return process


class Console:
    """A client of a running daemon, one command at a time."""

    def __init__(self, board, daemon, client):
        self.board, self.daemon, self.client = board, daemon, client
        self.marks = 0
        self.commands = []  # what the last command ran through the shell
        self.tools = []     # the calls of stand-ins that it caused
        self.errors = []    # the lines it wrote to standard error

    def send(self, param, *values, **members):
        """Sends an update without waiting."""
        self.client.send(update_text(param, *values, **members))

    def finish(self):
        """Waits until everything sent has been carried out; returns the first line after it."""
        self.marks += 1
        mark = f"mark-{self.marks}"
        # Commands are handled in order: this one is seen when those before it are done.
        self.client.send(update_text(mark))
        text = f'{{"cmd": "updateconfig", "param": "{mark}"}}\n'
        self.daemon.wait_error(f"config_update: {text}", timeout=20.0)
        return f"parse_packet json {text}"

    def send_text(self, text):
        """Sends a command, waits until it has been carried out and records what it did."""
        logged = len(log_lines(self.board)) - 1
        written = len(self.daemon.errors())
        self.client.send(text)
        end = self.finish()
        lines = log_lines(self.board)[logged:-1]
        self.commands = [line.removeprefix("sh -c ") for line in lines if line.startswith("sh -c ")
                         and not line.removeprefix("sh -c ").startswith(OTHER_COMMANDS)]
        self.tools = [line for line in lines
                      if not line.startswith(("sh -c ", *OTHER_COMMANDS))]
        errors = self.daemon.errors()[written:].split(end)[0]
        self.errors = [line for line in errors.split("\n")[:-1]
                       if not line.startswith(OTHER_ERRORS)]

    def update(self, param, *values, **members):
        """Sends an update and waits for it; self.errors is what follows its own log line."""
        text = update_text(param, *values, **members)
        self.send_text(text)
        # Other threads may have printed something before.
        own = f"config_update: {text.decode()}"
        assert own in self.errors
        del self.errors[:self.errors.index(own) + 1]

    def boot_file(self):
        return self.board.path(BOOT_FILE).read_bytes()

    def saved(self):
        """The settings in the file; checks that the run-time copy has the same."""
        settings = parse_settings(self.boot_file())
        assert parse_settings(self.board.path(CONFIG).read_bytes()) == settings
        return settings

    def changes(self, before):
        """The saved settings that differ from `before`."""
        saved = self.saved()
        assert saved.keys() == before.keys()
        return {key: value for key, value in saved.items() if before[key] != value}
