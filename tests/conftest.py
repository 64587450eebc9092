"""The build directory that the tests try comes from ZELO_BUILD_DIR."""

import os
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[1]


@pytest.fixture(scope="session")
def build() -> Path:
    return Path(os.environ.get("ZELO_BUILD_DIR", ROOT / "build" / "release"))
