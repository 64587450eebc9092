"""What the kernel of a device, and its shell, make of a bundle's script."""

import os
import re
import stat
from collections.abc import Iterator
from pathlib import Path

from programs import run
from report import Finding, Report

SCRIPT = "run.sh"
SHELLS = ("sh", "ash", "dash")

# As an option in the interpreter line, or to the builtin command.
STOPS_AT_FAILURE = re.compile(rb"(?m)(?:\A#!\S*|(?:^|[;&])[ \t]*set)[ \t]+(?:\S+[ \t]+)*?"
                              rb"(?:-[a-zA-Z]*e|-o[ \t]+errexit)")


def is_inside(directory: Path, path: Path) -> bool:
    return Path(os.path.realpath(path)).is_relative_to(directory)


def check_script(archive: Path, directory: Path, report: Report) -> None:
    script = directory / SCRIPT
    if not is_inside(directory, script):
        return  # to a file that is not the bundle's; the link has its warning
    for severity, kind, text in faults(script, report.facts):
        report.findings.append(Finding(severity, f"script-{kind}", archive, f"{SCRIPT}: {text}"))


def faults(script: Path, facts: dict[str, object]) -> Iterator[tuple[str, str, str]]:
    """Severity, kind and text of each."""
    try:
        mode = script.stat().st_mode
    except OSError as error:
        yield "error", "missing", error.strerror
        return
    if not stat.S_ISREG(mode):
        yield "error", "not-a-file", "not a regular file"
        return
    if not mode & (stat.S_IXUSR | stat.S_IXGRP | stat.S_IXOTH):
        yield "error", "not-executable", "not executable"
    text = script.read_bytes()
    line = text.partition(b"\n")[0]
    interpreter = re.match(rb"#![ \t]*([^ \t\0]+)", line)
    if text.startswith(b"\x7fELF"):
        yield "warning", "is-a-program", "a program, which runs only on devices that it was built for"
    elif not interpreter:
        yield "error", "without-interpreter", "does not begin with an interpreter line (#!/...)"
    elif b"\r" in line:
        yield "error", "interpreter-carriage-return", "the interpreter line contains a carriage return"
    else:
        name = facts["interpreter"] = os.fsdecode(interpreter[1])
        yield from text_faults(name, text)


def text_faults(interpreter: str, text: bytes) -> Iterator[tuple[str, str, str]]:
    if not interpreter.startswith("/"):
        yield "error", "interpreter-relative", f"the interpreter {interpreter} has no absolute path"
    elif not os.path.exists(interpreter):
        yield "warning", "interpreter-missing", f"its interpreter {interpreter} does not exist here"
    if b"\r\n" in text:
        yield "warning", "carriage-returns", "has lines that end with CR LF"
    if os.path.basename(interpreter) in SHELLS:
        if not STOPS_AT_FAILURE.search(text):
            yield "warning", "without-set-e", "has no set -e, so it continues after a command has failed"
        parsed = run("sh", "-n", entered=text)
        if parsed.returncode != 0:
            reason = parsed.stderr.decode(errors="replace").partition("\n")[0]
            yield "warning", "syntax", f"sh -n fails here: {reason}"
