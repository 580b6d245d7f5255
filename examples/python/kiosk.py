"""A kiosk: shows each content with its beacon as the shopper walks; Ctrl-C uploads the visit.
   python3 kiosk.py [SCENARIO.json | RECORDING | adapter]     (the one-door demo store by default)"""
import sys
from pathlib import Path

import pelm

where = sys.argv[1] if len(sys.argv) > 1 else str(Path(__file__).with_name("entrance.json"))
source = (pelm.adapter() if where == "adapter" else
          pelm.scenario(where) if where.endswith(".json") else pelm.recording(where))
with pelm.Server() as server:  # the embedded reference server, with the demo data
    ok, reason = pelm.set_app_token(server.token, server.host, ca=server.ca)
    if not ok:
        sys.exit(f"kiosk: no app configuration: {reason}")
    manager = pelm.BeaconManager(
        source=source, on_content=lambda c: print(f"{c.name}  (beacon {c.beacon})", flush=True),
        on_status=lambda line, _: line.startswith("Session upload") and pelm.stop())
    manager.start()
    pelm.run()  # until the shopper has left and the visit is uploaded, or Ctrl-C
    print("visit in progress at stop:", manager.stop())
