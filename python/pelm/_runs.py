"""pelm.replay, pelm.simulate and pelm.report, and the embedded reference server."""

from __future__ import annotations

import datetime
import json
import os
import uuid as uuidlib
from typing import Optional

from . import _pelm
from ._recordings import _EPOCH


def _date(text: Optional[str]) -> Optional[datetime.datetime]:
    """A date as the server writes it: 2026-11-22T09:03:50.000+0000."""
    try:
        return datetime.datetime.strptime(text, "%Y-%m-%dT%H:%M:%S.%f%z")
    except (TypeError, ValueError):
        return None


def _table(columns: dict):
    """A DataFrame when pandas is installed, otherwise a list of dicts, one a row."""
    try:
        import pandas as pd
    except ImportError:
        names = list(columns)
        return [dict(zip(names, row)) for row in zip(*columns.values())]
    return pd.DataFrame(columns)


def _visit_columns(visits: list) -> dict:
    """One row per line of each stored visit, each visit's lines by entrance, as `pelm replay` lists them."""
    columns = {name: [] for name in ("visit", "session_start", "session_end", "visit_beacon", "uuid", "major",
                                     "minor", "entrance", "exit")}
    for number, visit in enumerate(visits, start=1):
        session = visit.get("session") or {}
        beacon = visit.get("beacon") or {}
        lines = [line for line in visit.get("session_logs") or [] if isinstance(line, dict)]
        lines.sort(key=lambda line: str(line.get("entrance_time", "?")))
        for line in lines:
            columns["visit"].append(number)
            columns["session_start"].append(_date(session.get("start_time")))
            columns["session_end"].append(_date(session.get("end_time")))
            columns["visit_beacon"].append(f"{beacon.get('major', '?')}/{beacon.get('minor', '?')}")
            columns["uuid"].append(line.get("uuid"))
            columns["major"].append(int(line["major"]) if str(line.get("major", "")).isdigit() else None)
            columns["minor"].append(int(line["minor"]) if str(line.get("minor", "")).isdigit() else None)
            columns["entrance"].append(_date(line.get("entrance_time")))
            columns["exit"].append(_date(line.get("exit_time")))
    return columns


class Run:
    """What a replay or a simulation gave: `visits` (one row per beacon line of each stored visit), `events`
    (one flat row per event the host app was told of, or status line, or fault logged), `signals` (what the
    radio heard: one row per beacon device per second), as DataFrames when pandas is installed; `records`,
    the visits as the server stored them."""

    def __init__(self, native, start_us: int):
        self._native = native
        self.start = _EPOCH + datetime.timedelta(microseconds=start_us)
        self.length = datetime.timedelta(milliseconds=native.record.length_ms)
        self.records: list = json.loads(native.record.visits_json)

    @property
    def visits(self):
        return _table(_visit_columns(self.records))

    @property
    def events(self):
        columns = self._native.record.events()
        if "t" in columns:
            columns["t"] = [_EPOCH + datetime.timedelta(milliseconds=t) for t in columns["t"]]
            columns["at"] = [datetime.timedelta(milliseconds=at) for at in columns["at"]]
            columns["time"] = columns.pop("t")
            columns = {"time": columns.pop("time"), **columns}
        return _table(columns)

    @property
    def signals(self):
        columns = self._native.record.signals()
        columns["time"] = [_EPOCH + datetime.timedelta(milliseconds=t) for t in columns.pop("t")]
        return _table({"time": columns.pop("time"), **columns})

    def report(self, path: os.PathLike | str) -> None:
        """The HTML page `--report` writes: see pelm.report."""
        self._native.record.write_report(os.fspath(path))


class Replay(Run):
    """A replay: also `summary` (what the recording holds, one line), `uuid` (the app's, watched),
    `other_uuids` and `warnings`."""

    def __init__(self, native):
        super().__init__(native, native.start_us)
        self.summary: str = native.summary
        self.uuid = uuidlib.UUID(native.uuid) if native.uuid else None
        self.other_uuids = [uuidlib.UUID(u) for u in native.other_uuids]
        self.warnings: list = list(native.warnings)


class Simulation(Run):
    """A simulated walk: also `advertisements`, how many the shopper's phone heard."""

    def __init__(self, native):
        super().__init__(native, native.start_us)
        self.advertisements: int = native.advertisements


def _server_args(host, token, ca) -> dict:
    return {"host": host, "token": token, "ca": os.fspath(ca) if ca is not None else None}


def replay(path: os.PathLike | str, uuid: Optional[uuidlib.UUID | str] = None, scanner: Optional[str] = None,
           *, host: Optional[str] = None, token: Optional[str] = None,
           ca: Optional[os.PathLike | str] = None) -> Replay:
    """Plays a recording through the whole library, as `pelm replay` does, as fast as it goes: against the
    embedded server (content for every beacon heard) unless `host` and `token` name one. `uuid` is the
    app's proximity UUID (the one heard most when not given); `scanner` keeps one receiver's
    advertisements. Raises FileNotFoundError, pelm.RecordingError for a file that is not what it claims,
    pelm.RunError when the run could not take place, KeyboardInterrupt on Ctrl-C."""
    if not os.path.exists(path):
        raise FileNotFoundError(f"{os.fspath(path)} does not exist")
    return Replay(_pelm.replay(os.fspath(path), str(uuid) if uuid is not None else None, scanner,
                               **_server_args(host, token, ca)))


def simulate(scenario: Optional[os.PathLike | str] = None, seed: int = 1, *, host: Optional[str] = None,
             token: Optional[str] = None, ca: Optional[os.PathLike | str] = None) -> Simulation:
    """Walks a shopper through a simulated store in virtual time, as `pelm simulate` does: the demo store
    unless `scenario` names a file. Raises ValueError for a scenario that is not one (naming the field)."""
    return Simulation(_pelm.simulate(os.fspath(scenario) if scenario is not None else None, seed,
                                     **_server_args(host, token, ca)))


def report(run: Run, path: os.PathLike | str) -> None:
    """Writes the self-contained HTML page of a run (what `--report` writes): a summary, a row per beacon
    with its signal, entries, exits and contents, the devices, the timeline."""
    run.report(path)


class Server:
    """The reference content server on a free port of this machine, with the demo data (app token
    "demo-token") or a seed of one's own, and a throwaway certificate authority (`ca`). A context manager;
    `close()` stops it."""

    def __init__(self, seed: Optional[dict] = None):
        self._native = _pelm.Server(json.dumps(seed) if seed is not None else None)
        self.token = "demo-token"

    @property
    def host(self) -> str:
        return self._native.host

    @property
    def ca(self) -> str:
        return self._native.ca

    def visits(self) -> list:
        """The visits it stored, as it keeps them."""
        return json.loads(self._native.visits_json())

    def close(self) -> None:
        self._native.close()

    def __enter__(self) -> "Server":
        return self

    def __exit__(self, *exc) -> None:
        self.close()
