"""Starts a command of device/commands, as ci/start does it: NAME [ARGUMENT]..., with tools/ in PYTHONPATH."""

import sys

del sys.argv[0]  # or messages would begin with this file's name

from command import run_command  # noqa: E402

run_command(f"device.commands.{sys.argv[0].replace('-', '_')}", failed=1)
