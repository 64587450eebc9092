"""Lines that arrive in pieces, and how texts are shown."""

import os
import re
from collections import Counter
from collections.abc import Callable, Iterable, Sequence

LONGEST = 4096
WIDTH, MANY = 80, 10


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
    """Without what would act on a terminal or is not text."""
    return re.sub("[\0-\x08\x0a-\x1f\x7f-\x9f\udc80-\udcff]", lambda it: f"\\x{ord(it[0]) & 0xff:02x}", text)


def shortened(texts: Iterable[str]) -> list[str]:
    """Each only once, and not too much of them."""
    counts = Counter(text if len(text) <= WIDTH else f"{text[:WIDTH]}..." for text in texts)
    lines = [text if count == 1 else f"{text} ({count} times)" for text, count in counts.items()]
    return lines if len(lines) <= MANY else [*lines[:MANY], f"{len(lines) - MANY} more"]


def listed(texts: Iterable[str]) -> str:
    return ", ".join(shortened(texts))


def show(title: str, lines: Sequence[str]) -> None:
    """A title and its lines; nothing without any."""
    if lines:
        print(f"{title}:")
    for line in lines:
        print(f"  {printable(line)}")
