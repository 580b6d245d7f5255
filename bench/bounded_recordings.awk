# Recordings whose replay must stay within a fixed memory, every sender an iBeacon, written in time order as
# pelm record's JSON trace. `awk -v kind=KIND -v n=N -f bench/bounded_recordings.awk`:
#   minute   a minute of three beacons of the app's UUID, each every 100 ms (the baseline)
#   day      24 h of the same (2.6 M advertisements)
#   phones   N passing phones, a new one every 20 ms, each heard five times a second apart as beacon 1/1
#   beacons  N distinct beacons, each of a UUID of its own, passing as the phones do, beside the app's three
#   rooms    N advertisements of a store of four rooms, 22 a tenth of a second: six beacons carried from room
#            to room every ten minutes (heard faintly next door), a fixed beacon of another UUID in each room,
#            and phones' other traffic, each heard by the scanners Room1 to Room4
BEGIN {
  uuid = "F7826DA64FA24E988024BC5B71E0893E"
  t0 = 1680000000000
  if (kind == "minute" || kind == "day") three(kind == "day" ? 864000 : 600)
  else if (kind == "phones" || kind == "beacons") passing(n, kind == "beacons")
  else if (kind == "rooms") rooms(n)
  else { print "bounded_recordings.awk: kind is minute, day, phones, beacons or rooms" > "/dev/stderr"; exit 2 }
}

function ad(t, address, rssi, data, scanner) {
  printf "{\"t\":%.0f,\"address\":\"%s\",\"rssi\":%d,\"data\":\"0201061AFF4C000215%sC5\"%s}\n", t, address, rssi, data,
    scanner == "" ? "" : ",\"scanner\":\"" scanner "\""
}

function three(tenths,    i, b) {
  for (i = 0; i < tenths; i++)
    for (b = 0; b < 3; b++)
      ad(t0 + i * 100 + b * 7, sprintf("AA:BB:CC:00:00:%02X", b), -60 - (i + b * 13) % 20, sprintf("%s0001%04X", uuid, b + 1), "")
}

# Step i carries the k-th advertisement of sender i - 50 k: every line of a step has the step's time.
function passing(count, ownUuid,    i, k, p, data, b) {
  for (i = 0; i < count + 250; i++) {
    for (k = 0; k < 5; k++) {
      p = i - 50 * k
      if (p < 0 || p >= count) continue
      data = ownUuid ? sprintf("%08X0000400080000000%08X00010001", p, p) : uuid "00010001"
      ad(t0 + i * 20, sprintf("%02X:%02X:%02X:00:00:%02X", int(p / 65536) % 256, int(p / 256) % 256, p % 256, ownUuid ? 3 : 1), ownUuid ? -75 : -70, data, "")
    }
    if (ownUuid && i % 5 == 0)
      for (b = 0; b < 3; b++) ad(t0 + i * 20 + b, sprintf("AA:BB:CC:00:00:%02X", b), -65, sprintf("%s0001%04X", uuid, b + 1), "")
  }
}

function rooms(count,    written, i, t, b, r, here) {
  for (i = 0; written < count; i++) {
    t = t0 + i * 100
    for (b = 0; b < 6; b++)
      for (r = 1; r <= 4; r++) {
        here = (int(i / 6000) + b) % 4 + 1 == r
        if (!here && (i + b + r) % 4 != 0) continue
        ad(t + b, "carried-" b, here ? -62 : -91, sprintf("%s0002%04X", uuid, b + 1), "Room" r)
        written++
      }
    for (r = 1; r <= 4; r++) ad(t + 7, "fixed-" r, -58, sprintf("DAF246CE836311E4B116123B93F75C%04X0001", r), "Room" r)
    for (r = 1; r <= 4; r++)
      printf "{\"t\":%.0f,\"address\":\"phone-%d\",\"rssi\":-80,\"data\":\"0201061AFF4C0010\",\"scanner\":\"Room%d\"}\n", t + 8, i % 5000, r
    for (r = 1; r <= 4; r++)
      printf "{\"t\":%.0f,\"address\":\"phone-%d\",\"rssi\":-84,\"data\":\"0201061AFF4C0010\",\"scanner\":\"Room%d\"}\n", t + 9, (i + 2500) % 5000, r
    written += 12
  }
}
