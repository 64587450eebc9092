"""A place for what is being made or checked, and what no signal may interrupt."""

import signal
import tempfile
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

from command import ENDING


@contextmanager
def signals_wait() -> Iterator[None]:
    signal.pthread_sigmask(signal.SIG_BLOCK, ENDING)
    try:
        yield
    finally:
        signal.pthread_sigmask(signal.SIG_UNBLOCK, ENDING)


@contextmanager
def scratch_directory(parent: Path | None = None) -> Iterator[Path]:
    """A directory that is removed afterwards; signals wait while it is made and removed."""
    with signals_wait(), tempfile.TemporaryDirectory(prefix=".zelo-bundle.", dir=parent) as name:
        try:
            signal.pthread_sigmask(signal.SIG_UNBLOCK, ENDING)
            yield Path(name).resolve()
        finally:
            signal.pthread_sigmask(signal.SIG_BLOCK, ENDING)
