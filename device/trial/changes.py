"""What is on a device, and what has changed there."""

import hashlib
import os
import re
import stat
from collections.abc import Iterator, Mapping
from contextlib import suppress
from pathlib import Path
from typing import NamedTuple

# What the daemon and the services leave, whatever the bundle; and what a real device makes at each start.
NOT_THE_BUNDLE = re.compile(r"/tmp/zeloinstall\.[^/]*(/.*)?|(/var)?/run/zeloinstall\.pid"
                            r"|/run/kbus\.sock|/(dev|proc)(/.*)?")


class Entry(NamedTuple):
    description: str  # as `ls` has it
    content: str  # its digest, or the device's number


Entries = Mapping[str, Entry]


def entries(root: Path) -> Entries:
    """Everything below `root`, by its path on the device."""
    found = {}
    for parent, directories, files in os.walk(root):
        for path in (os.path.join(parent, name) for name in directories + files):
            name = path.removeprefix(str(root))
            if not NOT_THE_BUNDLE.fullmatch(name):
                found[name] = _entry(path)
    return found


def differences(before: Entries, after: Entries) -> Iterator[str]:
    """A line for each path that is not the same, in the order of the paths."""
    for path in sorted(before.keys() | after.keys()):
        old, new = before.get(path), after.get(path)
        if not new:
            yield f"removed  {path}"
        elif not old:
            yield f"added    {path} ({new.description})"
        elif old.description != new.description:
            yield f"changed  {path} ({old.description}, now {new.description})"
        elif old.content != new.content:
            yield f"changed  {path} (content)"


def _entry(path: str) -> Entry:
    info = os.lstat(path)
    description = f"{stat.filemode(info.st_mode)} {info.st_uid}:{info.st_gid}"
    if stat.S_ISLNK(info.st_mode):
        description += f" to {os.readlink(path)}"
    content = str(info.st_rdev)
    if stat.S_ISREG(info.st_mode):
        with suppress(PermissionError), open(path, "rb") as file:
            content = hashlib.file_digest(file, "sha256").hexdigest()
    return Entry(description, content)
