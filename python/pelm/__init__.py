"""pelm for Python: beacon-triggered content, and recordings replayed into the visits a phone would log.

A host (a kiosk, a shelf display)::

    import pelm
    ok, reason = pelm.set_app_token("demo-token", "localhost:8443", ca="ca.pem")
    manager = pelm.BeaconManager(on_content=lambda c: print(c.name, c.beacon), source=pelm.scenario("store.json"))
    manager.start()
    pelm.run()              # until Ctrl-C
    print(manager.stop())   # the visit in progress, uploaded: "uploaded"

The lab::

    run = pelm.replay("walk.btsnoop")
    run.visits              # a pandas DataFrame when pandas is installed, a list of dicts otherwise
    pelm.read("walk.btsnoop").to_pandas()
"""

from ._pelm import RecordingError, RunError
from ._recordings import Advertisement, Recording, read
from ._runs import Run, Server, replay, report, simulate
from ._host import (
    BeaconManager,
    Content,
    Device,
    DeviceStatus,
    adapter,
    configure,
    no_beacons,
    recording,
    run,
    run_async,
    scenario,
    set_app_token,
    stop,
)
from .events import Beacon

__all__ = [
    "Advertisement", "Beacon", "BeaconManager", "Content", "Device", "DeviceStatus", "Recording",
    "RecordingError", "Run", "RunError", "Server", "adapter", "configure", "no_beacons", "read", "recording",
    "replay", "report", "run", "run_async", "scenario", "set_app_token", "simulate", "stop",
]
