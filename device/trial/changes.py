"""What is on a device, and what has changed there."""

import hashlib
import os
import re
import stat
from collections.abc import Iterator, Mapping
from dataclasses import dataclass
from pathlib import Path

# What the daemon and the services leave, whatever the bundle; and what a real device makes at each start.
NOT_THE_BUNDLE = re.compile(r"/tmp/zeloinstall\.[^/]*(/.*)?|(/var)?/run/zeloinstall\.pid"
                            r"|/run/(transfer(/.*)?|kbus\.sock)|/(dev|proc)(/.*)?")


@dataclass(frozen=True)
class Entry:
    kind: str
    mode: int
    owner: str
    content: str
    state: tuple[int, ...]  # as long as this stays, so does the content

    def __str__(self) -> str:
        target = f", {self.content}" if self.kind == "link" else ""
        return f"{self.kind}, {self.mode:04o}, {self.owner}{target}"

    def changes_to(self, other: "Entry") -> Iterator[str]:
        if (self.kind, self.content) != (other.kind, other.content):
            yield "content" if self.kind == other.kind else f"{self.kind} -> {other.kind}"
        if self.mode != other.mode:
            yield f"mode {self.mode:04o} -> {other.mode:04o}"
        if self.owner != other.owner:
            yield f"owner {self.owner} -> {other.owner}"


Entries = Mapping[str, Entry]


def entries(root: Path, known: Entries | None = None) -> dict[str, Entry]:
    """Everything below `root`. What has not been touched since `known` was taken is not read again."""
    found = {}
    for parent, directories, files in os.walk(root):
        for path in (os.path.join(parent, name) for name in directories + files):
            name = path.removeprefix(str(root))
            if not NOT_THE_BUNDLE.fullmatch(name):
                found[name] = entry(Path(path), (known or {}).get(name))
    return found


def entry(path: Path, known: Entry | None = None) -> Entry:
    info = path.lstat()
    mode = stat.S_IMODE(info.st_mode)
    owner = f"{info.st_uid}:{info.st_gid}"
    state = info.st_dev, info.st_ino, info.st_size, info.st_mtime_ns, info.st_ctime_ns
    if stat.S_ISLNK(info.st_mode):
        return Entry("link", mode, owner, f"to {os.readlink(path)}", state)
    if stat.S_ISREG(info.st_mode):
        content = known.content if known and known.state == state else _digest(path)
        return Entry("file", mode, owner, content, state)
    if stat.S_ISDIR(info.st_mode):
        return Entry("directory", mode, owner, "", state)
    return Entry("special", mode, owner, f"{stat.S_IFMT(info.st_mode):o} {info.st_rdev}", state)


def differences(before: Entries, after: Entries) -> list[str]:
    """A line for each path that is not the same, in the order of the paths."""
    found = {path: f"removed  {path}" for path in before.keys() - after.keys()}
    found |= {path: f"added    {path} ({after[path]})" for path in after.keys() - before.keys()}
    for path in before.keys() & after.keys():
        if how := "; ".join(before[path].changes_to(after[path])):
            found[path] = f"changed  {path} ({how})"
    return [found[path] for path in sorted(found)]


def _digest(path: Path) -> str:
    try:
        with open(path, "rb") as file:
            return hashlib.file_digest(file, "sha256").hexdigest()
    except PermissionError:
        return "not readable"
