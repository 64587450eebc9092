"""Lines that arrive in pieces."""

import os
import re
from collections.abc import Callable

LONGEST = 4096


class Lines:
    """Passes each line on as soon as it is complete, or too long to wait for its end."""

    def __init__(self, use: Callable[[str], None]):
        self._use = use
        self._begun = b""

    def add(self, piece: bytes) -> None:
        *lines, self._begun = (self._begun + piece).split(b"\n")
        for line in lines:
            self._use(os.fsdecode(line))
        if len(self._begun) > LONGEST:
            self.end()

    def end(self) -> None:
        if self._begun:
            self._use(os.fsdecode(self._begun))
        self._begun = b""


def printable(text: str) -> str:
    """Without what would act on a terminal."""
    return re.sub(r"[\0-\x08\x0a-\x1f\x7f]", lambda match: f"\\x{ord(match[0]):02x}", text)
