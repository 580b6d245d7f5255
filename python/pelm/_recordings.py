"""pelm.read: a recording's advertisements, one by one or as columns."""

from __future__ import annotations

import dataclasses
import datetime
import os
import uuid as uuidlib
from typing import Iterator, Optional

from . import _pelm

_EPOCH = datetime.datetime(1970, 1, 1, tzinfo=datetime.timezone.utc)


def _time(microseconds: int) -> datetime.datetime:
    return _EPOCH + datetime.timedelta(microseconds=microseconds)


@dataclasses.dataclass(frozen=True)
class Advertisement:
    """One advertisement as a radio heard it. `uuid`, `major` and `minor` are None when its data holds no
    iBeacon frame; `power` is the iBeacon's measured power at one metre (dBm)."""

    time: datetime.datetime
    address: str
    rssi: int
    data: bytes
    scanner: str
    uuid: Optional[uuidlib.UUID]
    major: Optional[int]
    minor: Optional[int]
    power: Optional[int]


class Recording:
    """A btsnoop log, a pcap or pcapng capture, or a JSON trace of `pelm record`, told by its first bytes.

    Iterating it reads the file as it goes, in constant memory; `to_numpy()` and `to_pandas()` read it
    whole into columns without a Python step per advertisement. A file that is not what it claims raises
    `pelm.RecordingError` naming the place and what was expected there."""

    def __init__(self, path: os.PathLike | str):
        self.path = os.fspath(path)
        self.format: Optional[str] = None
        self.warning: Optional[str] = None

    def __iter__(self) -> Iterator[Advertisement]:
        reader = _pelm.Reader(self.path)
        self.format = reader.format
        for t, address, rssi, data, scanner, uuid, major, minor, power in reader:
            beacon = uuid is not None
            yield Advertisement(_time(t), address, rssi, data, scanner,
                                uuidlib.UUID(uuid) if beacon else None, major if beacon else None,
                                minor if beacon else None, power if beacon else None)
        self.warning = reader.warning

    def _columns(self) -> dict:
        columns = _pelm.read_columns(self.path)
        self.format, self.warning = columns["format"], columns["warning"]
        return columns

    def to_numpy(self) -> dict:
        """The advertisements as numpy arrays of one length, in file order: `time` (datetime64[us], UTC),
        `rssi`, `major`, `minor` and `power` (-1, -1 and 0 where no iBeacon was heard), and the texts as
        codes into their tables, as a category holds them: `address` indexes `addresses`, `scanner`
        `scanners`, `uuid` `uuids` (-1 where no iBeacon). `columns["addresses"][columns["address"]]` gives
        the texts row by row, should they be wanted (a recording has few senders and many rows)."""
        import numpy as np

        columns = self._columns()

        def table(names):
            texts = np.empty(len(names), dtype=object)
            texts[:] = names
            return texts

        return {
            "time": columns["time"].view("datetime64[us]"),
            "address": columns["address"],
            "scanner": columns["scanner"],
            "uuid": columns["uuid"],
            "rssi": columns["rssi"],
            "major": columns["major"],
            "minor": columns["minor"],
            "power": columns["power"],
            "addresses": table(columns["addresses"]),
            "scanners": table(columns["scanners"]),
            "uuids": table(columns["uuids"]),
        }

    def to_pandas(self):
        """The advertisements as a DataFrame; address, scanner and uuid are categories (a recording has few
        senders), and uuid is missing where no iBeacon was heard."""
        import pandas as pd

        columns = self._columns()

        def category(codes, names):
            # Each text is named once, so the codes are a category's as they are.
            return pd.Categorical.from_codes(codes, categories=pd.Index(names, dtype=object))

        return pd.DataFrame({
            "time": pd.to_datetime(columns["time"].view("datetime64[us]"), utc=True),
            "address": category(columns["address"], columns["addresses"]),
            "scanner": category(columns["scanner"], columns["scanners"]),
            "uuid": category(columns["uuid"], columns["uuids"]),
            "rssi": columns["rssi"],
            "major": columns["major"],
            "minor": columns["minor"],
            "power": columns["power"],
        })


def read(path: os.PathLike | str) -> Recording:
    """The recording at `path`; nothing is read until it is iterated or turned into columns."""
    if not os.path.exists(path):
        raise FileNotFoundError(f"{os.fspath(path)} does not exist")
    return Recording(path)
