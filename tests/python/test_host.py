"""The host API: the app token, content from a simulated store through the embedded server, the visit
uploaded at stop, Ctrl-C during run(), callbacks that raise, and asyncio."""

import asyncio
import os
import signal
import subprocess
import sys
import textwrap
import threading

import pytest

import pelm
from conftest import ENTRANCE, ROOT


def test_content_comes_with_its_beacon_and_the_visit_is_uploaded_at_stop(server):
    assert pelm.set_app_token("demo-token", server.host, ca=server.ca) == (True, "")
    contents, lines = [], []

    def on_content(content):
        contents.append(content)
        pelm.stop()

    manager = pelm.BeaconManager(on_content=on_content, on_status=lambda text, critical: lines.append(text),
                                 source=pelm.scenario(ENTRANCE))
    manager.start()
    assert pelm.run(30) is False
    assert contents[0].name == "Willkommen" and contents[0].display_type == "entry"
    assert (contents[0].beacon.major, contents[0].beacon.minor) == (1, 1)
    assert "Entering MAIN Region: F7826DA6-4FA2-4E98-8024-BC5B71E0893E" in lines
    assert manager.stop() == "uploaded"
    stored = server.visits()
    assert len(stored) == 1 and stored[0]["beacon"]["minor"] == "1"
    manager.close()


def test_a_visit_the_server_cannot_take_at_stop_is_told_critical_and_not_uploaded(server):
    pelm.set_app_token("demo-token", server.host, ca=server.ca)
    lines = []
    manager = pelm.BeaconManager(on_content=lambda content: pelm.stop(),
                                 on_status=lambda text, critical: lines.append((text, critical)),
                                 source=pelm.scenario(ENTRANCE))
    manager.start()
    pelm.run(30)
    server.close()
    assert manager.stop() == "not uploaded"
    assert ("Failed to upload session", True) in lines
    assert all(not critical for text, critical in lines if text.startswith("Entering"))
    manager.close()


def test_a_token_the_server_does_not_know_is_refused_with_the_reason(server):
    ok, reason = pelm.set_app_token("no-such-token", server.host, ca=server.ca)
    assert not ok
    assert reason == (f"the server {server.host} does not know this app token (HTTP 401); check the token")


def test_what_a_callback_raises_ends_run_and_is_raised_there(server):
    pelm.set_app_token("demo-token", server.host, ca=server.ca)

    def on_status(text, critical):
        raise LookupError("the host's own fault: " + text)

    manager = pelm.BeaconManager(on_status=on_status, source=pelm.scenario(ENTRANCE))
    with pytest.raises(LookupError, match="the host's own fault: Starting core monitoring"):
        manager.start()
        pelm.run(30)
    manager.close()


def test_in_asyncio_callbacks_come_on_the_loops_thread(server):
    pelm.set_app_token("demo-token", server.host, ca=server.ca)

    async def main():
        arrived = asyncio.Event()
        threads = []

        def on_content(content):
            threads.append(threading.get_ident())
            arrived.set()

        manager = pelm.BeaconManager(on_content=on_content, source=pelm.scenario(ENTRANCE))
        looping = asyncio.create_task(pelm.run_async())
        await asyncio.sleep(0.1)
        manager.start()  # from the asyncio thread while another thread runs pelm's loop
        await asyncio.wait_for(arrived.wait(), 30)
        visit = manager.stop()
        looping.cancel()
        with pytest.raises(asyncio.CancelledError):
            await looping
        return threads, visit

    threads, visit = asyncio.run(main())
    assert threads == [threading.get_ident()]
    assert visit == "uploaded"


def test_ctrl_c_during_run_returns_and_the_visit_is_uploaded(tmp_path):
    script = textwrap.dedent(f"""
        import pelm
        pelm.configure(config_dir={str(tmp_path)!r})
        with pelm.Server() as server:
            pelm.set_app_token("demo-token", server.host, ca=server.ca)
            manager = pelm.BeaconManager(on_content=lambda c: print("content", c.name, flush=True),
                                         source=pelm.scenario({str(ENTRANCE)!r}))
            manager.start()
            print("interrupted" if pelm.run() else "ended", manager.stop(), len(server.visits()), flush=True)
    """)
    child = subprocess.Popen([sys.executable, "-c", script], stdout=subprocess.PIPE, text=True,
                             env={**os.environ, "PYTHONPATH": os.pathsep.join(sys.path)})
    assert child.stdout.readline() == "content Willkommen\n"
    child.send_signal(signal.SIGINT)
    out, _ = child.communicate(timeout=30)
    assert out == "interrupted uploaded 1\n"
    assert child.returncode == 0
