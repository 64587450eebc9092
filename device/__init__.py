"""A virtual device: a private root directory with only what a device has, and the services around it.

`device.virtual_device.VirtualDevice` is where to begin.
"""

import time
from collections.abc import Callable

PATIENCE = 100  # seconds to wait for what should happen at once: a loaded machine is not a fault


def until(condition: Callable[[], object], failure: str = "what was waited for did not happen") -> None:
    """Returns as soon as the condition holds; after a long time, `failure` is raised."""
    deadline = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > deadline:
            raise TimeoutError(f"timed out after {PATIENCE} s: {failure}")
        time.sleep(0.002)
