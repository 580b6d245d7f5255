"""What happened during a visit, as typed values: each kind of event is a dataclass whose fields are those
of the events file (`pelm replay --events`), with the time it happened and the beacon it concerns."""

from __future__ import annotations

import dataclasses
import datetime
import json
import uuid as uuidlib
from typing import Any, NamedTuple, Optional


class Beacon(NamedTuple):
    """A beacon: its proximity UUID, major and minor."""

    uuid: uuidlib.UUID
    major: int
    minor: int

    def __str__(self) -> str:
        return f"{self.major}/{self.minor}"


def beacon_of(fields: Optional[dict]) -> Optional[Beacon]:
    if not fields:
        return None
    return Beacon(uuidlib.UUID(fields["uuid"]), int(fields["major"]), int(fields["minor"]))


@dataclasses.dataclass(frozen=True)
class Event:
    """Every event: when it happened and the library's words for it."""

    time: datetime.datetime
    text: str


def _event(class_name: str, doc: str, **fields: Any) -> type:
    made = dataclasses.make_dataclass(class_name, list(fields.items()), bases=(Event,), frozen=True)
    made.__doc__ = doc
    made.__module__ = __name__
    return made


MainRegionEntered = _event("MainRegionEntered", "The store's region was entered.", uuid=uuidlib.UUID,
                           already_inside=bool)
MainRegionLeft = _event("MainRegionLeft", "The store's region was left: the visit's upload starts.",
                        uuid=uuidlib.UUID)
BeaconsRanged = _event("BeaconsRanged", "One round of ranging: dicts of uuid, major, minor, rssi, accuracy, "
                       "proximity.", beacons=list)
SubRegionEntered = _event("SubRegionEntered", "A beacon's own region was entered.", beacon=Beacon,
                          already_inside=bool)
SubRegionLeft = _event("SubRegionLeft", "A beacon's own region was left.", beacon=Beacon)
ContentHandedOn = _event("ContentHandedOn", "Content handed to the host.", beacon=Beacon, display_type=str,
                         id=Optional[int], name=Optional[str])
ContentHeldBack = _event("ContentHeldBack", "Content held back while it cools down.", beacon=Beacon,
                         display_type=str, until=str)
VisitUploaded = _event("VisitUploaded", "The server answered a visit's upload.", stored=bool,
                       beacon=Optional[Beacon], session=dict, lines=list)
NearbyDevices = _event("NearbyDevices", "Discovery's report: dicts of id, rssi, battery, firmware, tx_power.",
                       devices=list)
BluetoothChanged = _event("BluetoothChanged", "Whether Bluetooth is on.", status=str)
LocationChanged = _event("LocationChanged", "Whether location use is allowed.", status=str)
ReachabilityChanged = _event("ReachabilityChanged", "Whether the server's host can be reached.", status=str)

_KINDS = {
    "main_region_entered": MainRegionEntered, "main_region_left": MainRegionLeft, "ranged": BeaconsRanged,
    "sub_region_entered": SubRegionEntered, "sub_region_left": SubRegionLeft, "content": ContentHandedOn,
    "held_back": ContentHeldBack, "visit_uploaded": VisitUploaded, "nearby": NearbyDevices,
    "bluetooth": BluetoothChanged, "location": LocationChanged, "reachability": ReachabilityChanged,
}


def from_line(line: str, text: str) -> Event:
    """The event of one line of the events file."""
    fields = json.loads(line)
    kind = _KINDS[fields.pop("kind")]
    time = datetime.datetime.fromtimestamp(fields.pop("t") / 1000, tz=datetime.timezone.utc)
    fields.pop("v", None)
    values = {}
    for field in dataclasses.fields(kind):
        if field.name in ("time", "text"):
            continue
        value = fields.get(field.name)
        if field.name == "beacon":
            value = beacon_of(value)
        elif field.name == "uuid":
            value = uuidlib.UUID(value)
        values[field.name] = value
    return kind(time=time, text=text, **values)
