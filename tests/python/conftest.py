"""Shared fixtures: the library under test (NPUCPU_LIBRARY or the build
tree) and the repository root."""
import os
import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
if str(ROOT / "python") not in sys.path:
    sys.path.insert(0, str(ROOT / "python"))

import npucpu  # noqa: E402


@pytest.fixture(scope="session")
def lib():
    return npucpu.load()


@pytest.fixture(scope="session")
def root():
    return ROOT


@pytest.fixture(scope="session")
def cli_env(lib):
    """Environment for subprocesses: the same library as the tests use."""
    env = dict(os.environ)
    env["NPUCPU_LIBRARY"] = str(lib.path)
    env["PYTHONDONTWRITEBYTECODE"] = "1"
    return env
