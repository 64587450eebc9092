"""What the kernel of a device, and a shell, make of a bundle's script."""

import os
import re
import stat
from pathlib import Path

from programs import run
from report import Report

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
    try:
        mode = script.stat().st_mode
    except OSError as error:
        report.error("script-missing", archive, f"{SCRIPT}: {error.strerror}")
        return
    if not stat.S_ISREG(mode):
        report.error("script-not-a-file", archive, f"{SCRIPT}: not a regular file")
        return
    if not mode & (stat.S_IXUSR | stat.S_IXGRP | stat.S_IXOTH):
        report.error("script-not-executable", archive, f"{SCRIPT}: not executable")
    text = script.read_bytes()
    line = text.partition(b"\n")[0]
    interpreter = re.match(rb"#![ \t]*([^ \t\0]+)", line)
    if text.startswith(b"\x7fELF"):
        report.warning("script-is-a-program", archive,
                       f"{SCRIPT}: a program, which runs only on devices that it was built for")
    elif not interpreter:
        report.error("script-without-interpreter", archive,
                     f"{SCRIPT}: does not begin with an interpreter line (#!/...)")
    elif b"\r" in line:
        report.error("script-interpreter-carriage-return", archive,
                     f"{SCRIPT}: the interpreter line holds a carriage return")
    else:
        check_interpreter(os.fsdecode(interpreter[1]), text, archive, report)


def check_interpreter(name: str, text: bytes, archive: Path, report: Report) -> None:
    report.facts["interpreter"] = name
    if not name.startswith("/"):
        report.error("script-interpreter-relative", archive,
                     f"{SCRIPT}: the interpreter {name} has no absolute path")
    elif not os.path.exists(name):
        report.warning("script-interpreter-missing", archive,
                       f"{SCRIPT}: the interpreter {name} does not exist here; devices need it")
    if b"\r\n" in text:
        report.warning("script-carriage-returns", archive,
                       f"{SCRIPT}: has lines that end with a carriage return (CR LF)")
    if os.path.basename(name) in SHELLS:
        check_shell_script(text, archive, report)


def check_shell_script(text: bytes, archive: Path, report: Report) -> None:
    if not STOPS_AT_FAILURE.search(text):
        report.warning("script-without-set-e", archive,
                       f"{SCRIPT}: has no set -e; it goes on after a command that failed")
    done = run("sh", "-n", entered=text)
    if done.returncode != 0:
        report.warning("script-syntax", archive, f"{SCRIPT}: the shell here does not parse it: "
                       f"{done.stderr.decode(errors='replace').partition(os.linesep)[0]}")
