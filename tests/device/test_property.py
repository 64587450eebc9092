"""Whatever is wrong, and whatever happens meanwhile: a run ends in time, and what it says and does fits.

The same combinations each time, unless ZELO_SOAK_MINUTES asks for others, from ZELO_SEED on.
"""

import os
import random
import shutil
import subprocess
import time
from collections import Counter
from pathlib import Path
from typing import NamedTuple

import pytest
from hypothesis import HealthCheck, Phase, given, seed, settings
from hypothesis import strategies as st

from device.bundles import INSTALLED
from device.cases import (END, NO_COMMAND, PROD, STAGES, Case, ended, failing, going_down, good, key_file,
                          nothing, own_lines, ready_device, script_runs, shown, signed, tampered)
from device.virtual_device import PID_FILE, VirtualDevice

from rows import KINDS
from test_signals import TERMINATION, storm

ROWS = {row.name: row for rows in KINDS.values() for row in rows}
GOOD, REFUSED = good("good", nothing), failing("refused", nothing, 3, NO_COMMAND, "00")
CODES = {1: {"02", "99"}, 2: {"02", "99"}, 3: {"00"}, 4: {"01"}, 5: {"03"}}  # by the stages that have begun
LATE = ["archive", "bundle", "openssl", "decoder"]  # drawn more often: most rows end a run in its first stage
SIGNERS = [("prod", "prod", False), ("prod", "prod", True), ("dev", "prod", True), ("dev", None, True),
           ("dev", "prod", False), ("prod", None, False), ("prod", "stranger", True), ("other", "prod", True)]
LIMITS = [*[None] * 70, *(f"--nofile={count}" for count in range(3, 14)),
          *(f"--as={count << 20}" for count in range(56, 112, 4)),
          *(f"--fsize={count}" for count in range(0, 500, 50))]
SIGNALS = [*[None] * 400, *((signum, delay) for signum in TERMINATION for delay in range(20, 220, 4))]


def stages(lines: list[str]) -> list[str]:
    return [line for line in lines if line in STAGES]


def codes(lines: list[str]) -> list[str]:
    return [line[-2:] for line in lines if ". code=" in line]


class Attempt(NamedTuple):
    rows: list[str]
    signer: str
    key: str | None  # that is installed as the production key
    marker: bool
    tampered: bool
    limit: str | None  # as prlimit takes it
    signal: tuple[int, int] | None  # and after how many milliseconds

    def prepare(self, device: VirtualDevice) -> None:
        archives = [ROWS[name].change for name in self.rows if ROWS[name] in KINDS["archive"]]
        others = [ROWS[name].change for name in self.rows if ROWS[name] not in KINDS["archive"]]
        for change in (*archives, signed(self.signer), tampered if self.tampered else nothing, *others,
                       key_file(PROD, self.key)):
            change(device)
        device.marker(self.marker)

    def ends(self) -> list[Case]:
        """The rows that it may end like: those of the first stage that cannot succeed."""
        rows = [ROWS[name] for name in self.rows]
        if any(row in KINDS["tar"] for row in rows):  # which does not look at the archive
            rows = [row for row in rows if row not in KINDS["archive"]]
        if self.tampered or not (self.signer == self.key or self.marker and self.signer == "dev"):
            rows.append(REFUSED)
        failing = [row for row in rows if row.shown or row.statuses != (0,)]
        first = min((len(stages(row.lines)) for row in failing), default=0)
        return [row for row in failing if len(stages(row.lines)) == first] or [GOOD]


@st.composite
def attempts(draw: st.DrawFn, limited: bool) -> Attempt:
    kinds = draw(st.sets(st.sampled_from([*KINDS, *LATE, *LATE]), max_size=2))
    return Attempt([draw(st.sampled_from(rows)).name for kind, rows in KINDS.items() if kind in kinds],
                   *draw(st.sampled_from(SIGNERS)), draw(st.sampled_from([False] * 4 + [True])),
                   draw(st.sampled_from(LIMITS)) if limited else None, draw(st.sampled_from(SIGNALS)))


def files_of(device: VirtualDevice) -> set[str]:
    """All but the work directories, the pid file and what run.sh may write."""
    find = ["find", ".", "-path", "./tmp/zeloinstall.*", "-prune", "-o", "-path", f".{PID_FILE}",
            "-o", "-path", f".{INSTALLED}", "-o", "-type", "d", "-printf", "%p %m\n",
            "-o", "-printf", "%p %m %s %T@\n"]
    return set(subprocess.check_output(find, cwd=device.root, text=True).splitlines())


def outcome(device: VirtualDevice, attempt: Attempt) -> tuple[object, ...]:
    run = device.start(prefix=["/usr/bin/prlimit", attempt.limit] if attempt.limit else [])
    if attempt.signal:
        time.sleep(attempt.signal[1] / 1000)
        run.send(attempt.signal[0])
        storm(run, 50, seed=attempt.signal[1])
    status = run.wait(60)
    lines = own_lines(run)
    check(attempt, status, lines, shown(device), script_runs(device))
    assert status != 0 or device.lock_was_released()
    assert status <= 1 or not device.work_directories(), status  # or the loader has failed
    return len(stages(lines)), status, *codes(lines)


def check(attempt: Attempt, status: int, lines: list[str], told: list[str], ran: int) -> None:
    ends = attempt.ends()
    begun, expected = len(stages(lines)), len(stages(ends[0].lines))
    telling = [text for code in codes(lines) for text in ("load = zelo", f"showError {code}")]
    seen = f"{status} {told} {ran} {lines}"
    assert stages(lines) == STAGES[:begun], seen
    assert begun <= expected, seen
    assert codes(lines) in [[], *([code] for code in CODES.get(begun, ()))], seen
    assert set(told) <= set(telling), seen
    assert ran <= (begun == 5), seen
    if status < 0:
        assert attempt.signal, seen
        assert lines[-1:] == [going_down(-status)] or not begun, seen
    elif status == 0:
        assert lines[-1:] == [END], seen
    if status >= 0 and not attempt.limit:
        assert begun == expected, seen
        assert codes(lines) in [codes(row.lines) for row in ends], seen
        assert status == max(row.statuses[0] for row in ends), seen
        assert status == 0 or lines[-1].startswith(ended("")), seen
        assert status == 1 or told == telling, seen
        assert ran == min(row.script_runs for row in ends), seen


def try_out(build: Path, attempt: Attempt, outcomes: Counter[tuple[object, ...]]) -> None:
    with ready_device(build) as device:
        good, kept = device.published, ("/etc", "/usr/bin", "/var/lib/prefbox")
        for part in kept:
            shutil.copytree(device.path(part), device.path(f"/kept{part}"))
        attempt.prepare(device)
        before = files_of(device)
        outcomes[outcome(device, attempt)] += 1
        assert files_of(device) == before

        for part in kept:
            shutil.rmtree(device.path(part))
            device.path(f"/kept{part}").rename(device.path(part))
        device.path(INSTALLED).unlink(missing_ok=True)
        device.marker(False)
        device.publish(good)
        device.restart_transfers()
        run = device.start()
        assert run.wait() == 0, run.log_lines()
        assert script_runs(device) == 1


def test_any_combination(build: Path, plain: bool, capsys: pytest.CaptureFixture[str]) -> None:
    outcomes: Counter[tuple[object, ...]] = Counter()
    search = settings(max_examples=60 if plain else 10, derandomize=True, database=None, deadline=None,
                      suppress_health_check=list(HealthCheck), phases=[Phase.generate, Phase.shrink])

    def trial(attempt: Attempt) -> None:
        try_out(build, attempt, outcomes)

    trials = given(attempts(limited=plain))
    minutes = float(os.environ.get("ZELO_SOAK_MINUTES", "0"))
    if not minutes:
        search(trials(trial))()
        return
    number = int(os.environ.get("ZELO_SEED") or random.randrange(1 << 32))
    end = time.monotonic() + 60 * minutes
    with capsys.disabled():
        while time.monotonic() < end:
            print(f"soak: seed {number}", flush=True)
            settings(search, derandomize=False)(seed(number)(trials(trial)))()
            print(f"soak: {sum(outcomes.values())} runs, {len(outcomes)} distinct outcomes", flush=True)
            number += 1
