"""What the kernel of a device, and its shell, make of a bundle's script."""

import os
import re
from collections.abc import Iterator
from pathlib import Path

from bundle_rules import Finding, Report
from programs import complaint, run

SCRIPT = "run.sh"
SHELLS = ("sh", "ash", "dash")

# As an option in the interpreter line, or to the builtin command.
STOPS_AT_FAILURE = re.compile(rb"(?m)(?:\A#!\S*|(?:^|[;&])[ \t]*set)[ \t]+(?:\S+[ \t]+)*?"
                              rb"(?:-[a-zA-Z]*e|-o[ \t]+errexit)")


def check_script(archive: Path, directory: Path, report: Report) -> None:
    for severity, text in faults(directory / SCRIPT):
        report.findings.append(Finding(severity, archive, f"{SCRIPT}: {text}"))


def faults(script: Path) -> Iterator[tuple[str, str]]:
    """Severity and text of each."""
    if not script.is_file():
        yield "error", "there is no such regular file at the top"
        return
    if not script.stat().st_mode & 0o111:
        yield "error", "not executable"
    text = script.read_bytes()
    line = text.partition(b"\n")[0]
    interpreter = re.match(rb"#![ \t]*(/[^ \t\0]*)", line)
    if text.startswith(b"\x7fELF"):
        yield "warning", "a program, which runs only on devices that it was built for"
    elif not interpreter:
        yield "error", "does not begin with an interpreter line (#!/...)"
    elif b"\r" in line:
        yield "error", "the interpreter line contains a carriage return"
    else:
        yield from risks(os.fsdecode(interpreter[1]), text)


def risks(interpreter: str, text: bytes) -> Iterator[tuple[str, str]]:
    if not os.path.exists(interpreter):
        yield "warning", f"its interpreter {interpreter} does not exist here"
    if os.path.basename(interpreter) in SHELLS:
        if not STOPS_AT_FAILURE.search(text):
            yield "warning", "has no set -e, so it continues after a command has failed"
        parsed = run("sh", "-n", entered=text)
        if parsed.returncode != 0:
            yield "warning", f"sh -n fails here: {complaint(parsed)}"
