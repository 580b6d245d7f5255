"""Replays a recording and shows the visits a phone would log: the table, and each beacon's signal with the
time its line of the visit was open, drawn into a PNG.
   python3 visits.py [RECORDING] [PICTURE.png]"""
import sys
from pathlib import Path

import matplotlib

matplotlib.use("Agg")  # a file, no window
import matplotlib.pyplot as plt

import pelm

root = Path(__file__).resolve().parents[2]
recording = sys.argv[1] if len(sys.argv) > 1 else root / "tests" / "data" / "recordings" / "android-hci.btsnoop"
picture = sys.argv[2] if len(sys.argv) > 2 else "visits.png"

run = pelm.replay(recording)
print(run.summary)
visits = run.visits
print(visits[["visit", "major", "minor", "entrance", "exit"]].to_string(index=False) if len(visits) else "no visit")

signals = run.signals
beacons = sorted(set(zip(signals["major"], signals["minor"])))
figure, axes = plt.subplots(max(len(beacons), 1), 1, sharex=True, squeeze=False,
                            figsize=(10, 1.8 * max(len(beacons), 1)))
for row, (major, minor) in zip(axes[:, 0], beacons):
    heard = signals[(signals["major"] == major) & (signals["minor"] == minor)]
    row.plot(heard["time"], heard["rssi"], ".-", markersize=3)
    for _, line in visits[(visits["major"] == major) & (visits["minor"] == minor)].iterrows():
        row.axvspan(line["entrance"], line["exit"], alpha=0.2, color="green")
    row.set_ylabel(f"{major}/{minor}\ndBm")
axes[0, 0].set_title(f"{Path(recording).name}: signal per beacon, visit lines shaded")
figure.tight_layout()
figure.savefig(picture)
print(f"picture: {picture}")
