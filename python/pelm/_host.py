"""The host API: the app token, a beacon manager and a device status manager with Python callbacks, and
the loop that calls them."""

from __future__ import annotations

import asyncio
import atexit
import dataclasses
import os
import sys
import threading
from pathlib import Path
from typing import Callable, Optional

from . import _pelm, events
from .events import Beacon


@dataclasses.dataclass(frozen=True)
class _Source:
    kind: str
    file: str = ""


def adapter() -> _Source:
    """Beacons from this machine's Bluetooth adapter (BlueZ); the default."""
    return _Source("adapter")


def scenario(path: os.PathLike | str) -> _Source:
    """Beacons from a simulated store (the JSON of `pelm simulate`), walked once in real time."""
    return _Source("scenario", os.fspath(path))


def recording(path: os.PathLike | str) -> _Source:
    """Beacons from a recording (btsnoop, pcap, pcapng, JSON trace), played once in real time."""
    return _Source("recording", os.fspath(path))


def no_beacons() -> _Source:
    """No radio at all."""
    return _Source("none")


class _Choice:
    app_name = Path(sys.argv[0]).stem if sys.argv and sys.argv[0] else "python"
    config_dir: Optional[str] = None
    ca: Optional[str] = None
    source = adapter()

    @classmethod
    def apply(cls) -> None:
        _pelm.configure(cls.app_name or "python", cls.config_dir, cls.ca, cls.source.kind, cls.source.file)


def configure(*, app_name: Optional[str] = None, config_dir: Optional[os.PathLike | str] = None,
              ca: Optional[os.PathLike | str] = None, source: Optional[_Source] = None) -> None:
    """What the host tells the platform: `app_name` names the settings file (the script's name by default)
    in `config_dir` ($XDG_CONFIG_HOME/pelm by default), `ca` is trusted besides the system's authorities,
    `source` is where beacons come from. Takes effect at the next call into the library."""
    if app_name is not None:
        _Choice.app_name = app_name
    if config_dir is not None:
        _Choice.config_dir = os.fspath(config_dir)
    if ca is not None:
        _Choice.ca = os.fspath(ca)
    if source is not None:
        _Choice.source = source
    _Choice.apply()


def set_app_token(token: str, host: str, *, ca: Optional[os.PathLike | str] = None,
                  timeout: float = 30.0) -> tuple[bool, str]:
    """Stores the app token and the server's host, then fetches the app's configuration; waits for it.
    Returns (True, "") or (False, the reason in a sentence a person can act on)."""
    configure(ca=ca)
    return _pelm.set_app_token(token, host, timeout)


@dataclasses.dataclass(frozen=True)
class Content:
    """Content the server assigned to a beacon: its name (None when it has none), id, whether it is for
    entering or leaving ("entry", "exit"), and the beacon."""

    name: Optional[str]
    id: Optional[int]
    display_type: str
    beacon: Beacon


@dataclasses.dataclass(frozen=True)
class Device:
    """A beacon device nearby, as discovery reported it."""

    id: str
    rssi: int
    battery: Optional[int]
    firmware: Optional[str]
    tx_power: Optional[int]


class _Delivery:
    """Where callbacks run: on the loop's thread (run()), or on an asyncio loop's (run_async())."""

    loop: Optional[asyncio.AbstractEventLoop] = None

    @classmethod
    def wrap(cls, callback: Optional[Callable]) -> Optional[Callable]:
        if callback is None:
            return None

        def deliver(*args):
            if cls.loop is not None:
                cls.loop.call_soon_threadsafe(callback, *args)
            else:
                callback(*args)

        return deliver


class BeaconManager:
    """Watches the app's beacons and tells the host, on the loop's thread:
    `on_content(Content)`, `on_status(text, critical)` (the library's status lines), `on_nearby([Device])`
    (after start_discovery) and `on_event(event)` (every typed event of pelm.events). `source` chooses
    where beacons come from (pelm.adapter(), pelm.scenario(path), pelm.recording(path), pelm.no_beacons()).
    Make it once set_app_token has succeeded: it reads the stored settings when it is made."""

    def __init__(self, *, on_content: Optional[Callable[[Content], None]] = None,
                 on_status: Optional[Callable[[str, bool], None]] = None,
                 on_nearby: Optional[Callable[[list], None]] = None,
                 on_event: Optional[Callable[[events.Event], None]] = None,
                 source: Optional[_Source] = None):
        if source is not None:
            configure(source=source)
        else:
            _Choice.apply()
        self._on_content = _Delivery.wrap(on_content)
        self._on_nearby = _Delivery.wrap(on_nearby)
        self._on_event = _Delivery.wrap(on_event)
        wants_events = any((on_content, on_nearby, on_event))
        self._native = _pelm.BeaconManager(_Delivery.wrap(on_status), self._event if wants_events else None)

    def _event(self, line: str, text: str) -> None:
        event = events.from_line(line, text)
        if self._on_event:
            self._on_event(event)
        if self._on_content and isinstance(event, events.ContentHandedOn):
            self._on_content(Content(event.name, event.id, event.display_type, event.beacon))
        if self._on_nearby and isinstance(event, events.NearbyDevices):
            self._on_nearby([Device(d.get("id", ""), d.get("rssi", 0), d.get("battery"), d.get("firmware"),
                                    d.get("tx_power")) for d in event.devices])

    def start(self) -> None:
        """Starts monitoring the app's store region."""
        self._native.start()

    def start_discovery(self, interval: Optional[float] = None) -> None:
        """Reports nearby beacon devices every `interval` seconds (the platform's own when None)."""
        self._native.start_discovery(interval)

    def stop_discovery(self) -> None:
        self._native.stop_discovery()

    def stop(self, timeout: float = 2.0) -> str:
        """Stops watching; the visit in progress ends as if the shopper left now and is uploaded.
        Returns "uploaded", "not uploaded" (refused, unreachable, or no answer within `timeout` seconds) or
        "none" (no visit in progress)."""
        return self._native.stop(timeout)

    def close(self) -> None:
        """Lets go of the manager at once: no callback comes after."""
        self._native.close()


class DeviceStatus:
    """Tells whether the server's host can be reached, location use is allowed and Bluetooth is on, each as
    the library's word ("reachable", "always", "on", ...), when it changes."""

    def __init__(self, *, on_reachable: Optional[Callable[[str], None]] = None,
                 on_location: Optional[Callable[[str], None]] = None,
                 on_bluetooth: Optional[Callable[[str], None]] = None):
        _Choice.apply()
        self._native = _pelm.DeviceStatus(_Delivery.wrap(on_reachable), _Delivery.wrap(on_location),
                                          _Delivery.wrap(on_bluetooth))

    def start(self) -> None:
        self._native.start()

    def close(self) -> None:
        self._native.close()


def run(seconds: Optional[float] = None) -> bool:
    """Runs the loop that delivers every callback, until stop(), `seconds` have passed, or Ctrl-C; the GIL
    is free meanwhile. Returns True when Ctrl-C ended it. What a callback raises stops the loop and is raised
    here."""
    return _pelm.run(seconds)


def stop() -> None:
    """Ends run(), from a callback or another thread."""
    _pelm.stop()


async def run_async() -> None:
    """The loop for an asyncio program: callbacks come on the asyncio loop's thread, and calls into pelm may
    be made from it. Runs until cancelled (or stop())."""
    _Delivery.loop = asyncio.get_running_loop()
    done = threading.Event()

    def loop_thread():
        try:
            _pelm.run(None)
        finally:
            done.set()

    worker = threading.Thread(target=loop_thread, name="pelm loop", daemon=True)
    worker.start()
    try:
        while not done.is_set():
            await asyncio.sleep(0.05)
    finally:
        while not done.is_set():
            _pelm.stop()
            done.wait(0.05)
        worker.join()
        _Delivery.loop = None


atexit.register(_pelm.shutdown)
