"""What the Python tests share: the repository's recordings, the pelm command to compare with, and a
settings folder of the test's own (the library stores the app token in it)."""

import json
import os
import re
import subprocess
from pathlib import Path

import pytest

import pelm

ROOT = Path(__file__).resolve().parents[2]
RECORDINGS = sorted(p for p in (ROOT / "tests" / "data" / "recordings").iterdir()
                    if p.suffix in (".btsnoop", ".jsonl", ".pcap", ".pcapng"))
ENTRANCE = ROOT / "examples" / "minimal_host" / "entrance.json"


def cli_json(*args: str) -> list:
    """The visits `pelm ARGS --json` prints after its events."""
    out = subprocess.run([os.environ.get("PELM_CLI", "pelm"), *args, "--json"], check=True,
                         capture_output=True, text=True, timeout=300).stdout
    return json.loads(out[out.index("\n[") + 1:])


def cli_table(*args: str) -> list:
    """The rows of the visit tables `pelm ARGS` prints: (major, minor, entrance, exit) texts, in its order."""
    out = subprocess.run([os.environ.get("PELM_CLI", "pelm"), *args], check=True, capture_output=True,
                         text=True, timeout=300).stdout
    rows = re.findall(r"^    (\d+)/(\d+) +(\S+) +(\S+)$", out, re.MULTILINE)
    return [(int(major), int(minor), entrance, exit) for major, minor, entrance, exit in rows]


def cli_summary(path: Path) -> str:
    out = subprocess.run([os.environ.get("PELM_CLI", "pelm"), "replay", str(path)], check=True,
                         capture_output=True, text=True, timeout=300).stdout
    return next(line for line in out.splitlines() if " advertisements (" in line)


@pytest.fixture(autouse=True)
def settings_folder(tmp_path):
    pelm.configure(config_dir=tmp_path / "settings", source=pelm.no_beacons())
    yield


@pytest.fixture
def server():
    with pelm.Server() as running:
        yield running
