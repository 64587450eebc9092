"""May this bundle be shipped? What an author is told in the end, from what was seen."""

import re
from collections.abc import Sequence
from dataclasses import dataclass, field

from command import Stopped

from device.trial.lines import listed
from device.trial.trace import SUCCESS, Trace

DEAD = "THE DEVICE CANNOT BE UPDATED ANY MORE: the next attempt fails before it reaches its script"


@dataclass
class Attempt:
    """What was seen of one start of the daemon."""

    trace: Trace = field(default_factory=Trace)
    stopped: Stopped | str = ""  # why it was stopped
    stderr: bool = False  # something was written there
    shown: Sequence[str] = ()  # to the user
    changes: Sequence[str] = ()

    def failure(self) -> str:
        """Empty when the bundle was installed."""
        if self.stopped:
            return str(self.stopped)
        if codes := re.findall(r"showError (\d\d)", "\n".join(self.shown)):
            return f"code {codes[-1]}"
        if not self.trace.daemon.end:
            return "the daemon could not be started"
        if self.trace.daemon.end != SUCCESS:
            return f"the daemon ended with {self.trace.daemon.end}"
        # The bundle may have replaced what would show a code, or the daemon itself.
        if not self.trace.script:
            return "run.sh was not started"
        script_end = self.trace.script.end
        failed = script_end.startswith("status") and script_end != SUCCESS
        return f"run.sh ended with {script_end}" if failed else ""


def judge(first: Attempt, second: Attempt | None = None, *, strict: bool) -> tuple[list[str], int]:
    """Lines to tell, and the exit status. `second` followed, with the same bundle on the same device."""
    again = second.failure() if second else ""
    dead = bool(second and not second.trace.script and not isinstance(second.stopped, Stopped))
    if failure := first.failure():
        return [f"NOT INSTALLED: {failure}", *([f"{DEAD} ({again})"] if dead else [])], 1
    trace, left = first.trace, first.trace.running().values()
    script_end = trace.script.end if trace.script else ""
    remarks: dict[str, object] = {
        f"run.sh ended with {script_end}, which counts as success": not script_end.startswith("status"),
        f"not found: {listed(trace.not_found)}": trace.not_found,
        f"refused here, but perhaps not on a device: {listed(trace.refused)}": trace.refused,
        "something was written on standard error": first.stderr,
        f"left running, until the service unit kills them: {listed(left)}": left,
        "nothing changed on the device": not first.changes,
        f"{DEAD} ({again})": dead,
        f"the second attempt fails: {again}": again and not dead,
        "the second attempt changes more": second and second.changes,
    }
    lines = [f"  {remark}" for remark, applies in remarks.items() if applies]
    return ["installed, but", *lines] if lines else ["installed"], int(dead or (strict and bool(lines)))
