"""pelm.read, pelm.replay, pelm.simulate and pelm.report against the pelm command on the same files."""

import os
import re
import subprocess
import uuid

import numpy as np
import pytest

import pelm
from conftest import ENTRANCE, RECORDINGS, cli_json, cli_summary, cli_table


def _comparable(visits):
    # The server's own bookkeeping differs between two runs; the visit itself must not.
    return [{k: v for k, v in visit.items() if k not in ("id", "received_at")} for visit in visits]


@pytest.mark.parametrize("path", RECORDINGS, ids=lambda p: p.name)
def test_a_replay_stores_the_visits_the_command_stores(path):
    run = pelm.replay(path)
    assert _comparable(run.records) == _comparable(cli_json("replay", str(path)))
    assert run.summary == cli_summary(path)
    visits = run.visits
    assert len(visits) == sum(len(v["session_logs"]) for v in run.records)
    assert list(visits["minor"]) == [int(line["minor"]) for v in run.records
                                     for line in sorted(v["session_logs"], key=lambda l: l["entrance_time"])]


@pytest.mark.parametrize("path", RECORDINGS, ids=lambda p: p.name)
def test_every_advertisement_is_read_once_whichever_way(path):
    total, beacons = map(int, re.match(r"(\d+) advertisements \((\d+) iBeacon\)", cli_summary(path)).groups())
    columns = pelm.read(path).to_numpy()
    assert {len(columns[name]) for name in ("time", "address", "scanner", "uuid", "rssi", "major", "minor",
                                             "power")} == {total}
    assert int((columns["major"] >= 0).sum()) == beacons
    one_by_one = list(pelm.read(path))
    assert len(one_by_one) == total
    assert sum(ad.uuid is not None for ad in one_by_one) == beacons
    # The columns hold what the advertisements do, row for row.
    frame = pelm.read(path).to_pandas()
    for row in (0, total // 2, total - 1):
        ad = one_by_one[row]
        assert frame["address"][row] == ad.address == columns["addresses"][columns["address"][row]]
        assert frame["scanner"][row] == ad.scanner == columns["scanners"][columns["scanner"][row]]
        assert frame["rssi"][row] == ad.rssi
        assert frame["time"][row].to_pydatetime() == ad.time
        assert (uuid.UUID(frame["uuid"][row]) if ad.uuid else None) == ad.uuid
        assert columns["minor"][row] == (ad.minor if ad.uuid else -1)


def test_a_simulated_walk_stores_the_visit_the_command_stores():
    run = pelm.simulate(seed=7)
    assert _comparable(run.records) == _comparable(cli_json("simulate", "--seed", "7"))
    # The visit's lines in the order and with the times the command's table shows (the demo walk leaves
    # its beacons in another order than it meets them).
    visits = run.visits
    rows = [(major, minor, entrance.strftime("%H:%M:%S"), exit.strftime("%H:%M:%S"))
            for major, minor, entrance, exit in zip(visits["major"], visits["minor"], visits["entrance"],
                                                    visits["exit"])]
    assert rows == cli_table("simulate", "--seed", "7")
    assert list(visits["exit"]) != sorted(visits["exit"])
    events = run.events
    contents = events[events["kind"] == "content"]
    assert list(contents["name"]) == [e for e in events["name"] if isinstance(e, str)]
    assert "Willkommen" in set(contents["name"])
    # A beacon is the same numbers in every table: the contents' beacons were heard.
    heard = set(zip(run.signals["major"], run.signals["minor"]))
    assert set(zip(contents["major"], contents["minor"])) <= heard
    assert set(zip(visits["major"], visits["minor"])) <= heard


def test_a_replay_watches_the_uuid_it_is_given():
    path = RECORDINGS[0]
    most_heard = pelm.replay(path)
    assert most_heard.records
    other = uuid.UUID("00000000-0000-4000-8000-000000000001")
    run = pelm.replay(path, uuid=other)
    assert run.uuid == other and most_heard.uuid in run.other_uuids
    assert run.records == [] and len(run.visits) == 0


def test_files_that_are_not_what_they_claim_raise_the_commands_words(tmp_path):
    with pytest.raises(FileNotFoundError, match="missing.btsnoop does not exist"):
        pelm.replay(tmp_path / "missing.btsnoop")
    text = tmp_path / "notes.btsnoop"
    text.write_text("not a recording\n")
    with pytest.raises(pelm.RecordingError) as raised:
        pelm.read(text).to_numpy()
    assert str(raised.value).startswith(str(text))
    with pytest.raises(pelm.RecordingError):
        pelm.replay(text)
    cut = tmp_path / "cut.btsnoop"
    cut.write_bytes(RECORDINGS[0].read_bytes()[:20])
    # A record that is not one, well into the file: the same words as the command's, from every way in.
    broken = tmp_path / "broken.btsnoop"
    whole = RECORDINGS[0].read_bytes()
    broken.write_bytes(whole[:3000] + b"\xff" * 40 + whole[3000:])
    command = subprocess.run([os.environ.get("PELM_CLI", "pelm"), "replay", str(broken)], capture_output=True,
                             text=True, timeout=60)
    assert command.returncode == 1
    said = command.stderr.strip().removeprefix("pelm replay: ")
    assert "expected a record length" in said
    for attempt in (lambda: pelm.read(broken).to_numpy(), lambda: list(pelm.read(broken)),
                    lambda: pelm.replay(broken)):
        with pytest.raises(pelm.RecordingError) as raised:
            attempt()
        assert str(raised.value) == said
    # A last record cut short is the end of the recording, told as a warning.
    cut_short = pelm.read(cut)
    assert list(cut_short) == [] and "offset 16" in cut_short.warning
    with pytest.raises(ValueError, match="uuid takes a UUID like"):
        pelm.replay(RECORDINGS[0], uuid="F7826DA6")
    bad = tmp_path / "store.json"
    bad.write_text(ENTRANCE.read_text().replace('"minor": 1', '"minor": 70000', 1))
    with pytest.raises(ValueError, match=r"bad scenario: beacons\[0\]\.minor: must be between 0 and 65535"):
        pelm.simulate(bad)
    with pytest.raises(ValueError, match="seed takes a whole number"):
        pelm.simulate(seed=-1)


def test_a_report_is_the_page_of_the_run(tmp_path):
    run = pelm.replay(RECORDINGS[0])
    page = tmp_path / "visit.html"
    pelm.report(run, page)
    html = page.read_text()
    assert html.startswith("<!DOCTYPE html>") and RECORDINGS[0].name in html
    with pytest.raises(ValueError):
        pelm.report(run, tmp_path / "no-such-folder" / "visit.html")


def test_numpy_columns_are_typed_for_analysis():
    columns = pelm.read(RECORDINGS[0]).to_numpy()
    assert columns["time"].dtype == np.dtype("datetime64[us]")
    assert columns["rssi"].dtype == np.int16
    assert columns["address"].dtype == np.int32 and len(set(columns["addresses"])) == len(columns["addresses"])
    # No UUID where no iBeacon was heard: code -1, which a category counts as missing; pandas says so too.
    assert {code < 0 for code in columns["uuid"]} == {True, False}
    assert np.array_equal(columns["uuid"] < 0, columns["major"] < 0)
    frame = pelm.read(RECORDINGS[0]).to_pandas()
    assert np.array_equal(frame["uuid"].isna().to_numpy(), columns["major"] < 0)