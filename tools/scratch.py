"""A place for what is being made or checked."""

import signal
import tempfile
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

from command import ENDING


@contextmanager
def scratch_directory(parent: Path | None = None) -> Iterator[Path]:
    """A directory that is removed afterwards; signals wait while it is made and removed."""
    signal.pthread_sigmask(signal.SIG_BLOCK, ENDING)
    try:
        with tempfile.TemporaryDirectory(prefix=".zelo-bundle.", dir=parent) as name:
            try:
                signal.pthread_sigmask(signal.SIG_UNBLOCK, ENDING)
                yield Path(name).resolve()
            finally:
                signal.pthread_sigmask(signal.SIG_BLOCK, ENDING)
    finally:
        signal.pthread_sigmask(signal.SIG_UNBLOCK, ENDING)
