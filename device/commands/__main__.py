"""Starts a command: /usr/bin/python3 -m device.commands NAME [ARGUMENT]..., with tools/ in PYTHONPATH."""

import sys

from device import alone

alone.enter()
del sys.argv[0]

from command import run_command  # noqa: E402

run_command(f"device.commands.{sys.argv[0].replace('-', '_')}", failed=1)
