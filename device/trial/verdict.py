"""May this bundle be shipped? What an author is told in the end, from what was seen."""

import signal
from collections.abc import Iterator, Sequence
from dataclasses import dataclass

DEAD = "THE DEVICE CANNOT BE UPDATED ANY MORE"


@dataclass(frozen=True)
class Attempt:
    """What was seen of one start of the daemon."""

    status: int | None  # None when it was stopped; a signal is a negative number
    code: str = ""  # what the user was shown
    stopped: str = ""  # why it was stopped
    reached_script: bool = False
    script_end: str = ""  # "status 1" or the name of a signal, where it can be told
    stderr: bool = False
    not_found: Sequence[str] = ()
    left: Sequence[str] = ()
    refused: Sequence[str] = ()  # system calls
    restarts: bool = False
    changes: Sequence[str] = ()

    def installed(self) -> bool:
        return self.status == 0 and not self.code

    def outcome(self) -> str:
        if self.stopped:
            return self.stopped
        if self.code:
            return f"code {self.code}"
        status = self.status or 0
        if status < 0:
            return f"the daemon was ended by {signal.Signals(-status).name}"
        return f"the daemon ended with status {status}"


@dataclass(frozen=True)
class Verdict:
    lines: list[str]
    status: int


def judge(first: Attempt, second: Attempt | None, strict: bool) -> Verdict:
    """`second` is the attempt that followed, on the same device with the same bundle."""
    dead = second is not None and not second.installed() and not second.reached_script
    why = [f"{DEAD}: the next attempt fails before it comes to its script ({second.outcome()})"
           ] if second and dead else []
    if not first.installed():
        return Verdict([f"NOT INSTALLED: {first.outcome()}", *_refusals(first), *why], 1)
    remarks = [*_remarks(first), *(why or (_remarks_on_second(second) if second else ()))]
    if not remarks:
        return Verdict(["installed"], 0)
    return Verdict(["installed, but", *(f"  {remark}" for remark in remarks)], 1 if dead or strict else 0)


def _refusals(attempt: Attempt) -> Iterator[str]:
    if attempt.refused:
        yield f"refused here, but perhaps not on a device: {', '.join(attempt.refused)}"


def _remarks(attempt: Attempt) -> Iterator[str]:
    if attempt.script_end and not attempt.script_end.startswith("status"):
        yield f"run.sh was ended by {attempt.script_end}, which counts as success"
    if attempt.not_found:
        yield f"not found: {', '.join(attempt.not_found)}"
    yield from _refusals(attempt)
    if attempt.stderr:
        yield "something was written on standard error"
    if attempt.left:
        yield f"left running, until the service unit kills them: {', '.join(attempt.left)}"
    if attempt.restarts:
        yield "a restart of the device was asked for; devices run the bundle again after it"
    if not attempt.changes:
        yield "nothing changed on the device"


def _remarks_on_second(second: Attempt) -> Iterator[str]:
    if not second.installed():
        yield f"the second attempt fails: {second.outcome()}"
    if second.changes:
        number = len(second.changes)
        yield f"the second attempt changes more: {number} path{'s' if number > 1 else ''}"
