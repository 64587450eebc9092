"""What the checks of a bundle have found."""

from dataclasses import dataclass, field
from pathlib import Path


@dataclass(frozen=True)
class Finding:
    severity: str  # error or warning
    kind: str  # the rule, for callers: what it is about (document, address, ...), a dash, what is wrong
    subject: Path
    text: str


@dataclass
class Report:
    findings: list[Finding] = field(default_factory=list)
    facts: dict[str, object] = field(default_factory=dict)

    def error(self, kind: str, subject: Path, text: str) -> None:
        self.findings.append(Finding("error", kind, subject, text))

    def warning(self, kind: str, subject: Path, text: str) -> None:
        self.findings.append(Finding("warning", kind, subject, text))

    def has_error(self) -> bool:
        return any(finding.severity == "error" for finding in self.findings)
