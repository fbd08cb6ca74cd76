"""Runs a program in a sandbox of its own: in_sandbox.py [NAME=VALUE...] PROGRAM ARGUMENT...

The fuzz targets write and remove the daemon's files. Needs root.
"""

import subprocess
import sys
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(REPOSITORY / "sandbox"))

from board import Board, require_root  # noqa: E402

require_root()
with Board() as board:
    board.path("/run/quillorbeacon").mkdir()
    sys.exit(subprocess.run(board.command(*sys.argv[1:]), check=False).returncode)
