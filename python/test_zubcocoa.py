"""The zubcocoa module against a real zub-collector: several Python threads track
through the module, a flush sends everything, and the collector holds each event
once. Needs $ZUB_COLLECTOR (the collector binary) and the library (see
zubcocoa/__init__.py); CTest sets both to this build's."""

import json
import os
import subprocess
import tempfile
import threading
import unittest

# A home of its own before the library is loaded, so that nothing touches the user's.
_home = tempfile.TemporaryDirectory(prefix="zubcocoa-test-")
os.environ["HOME"] = _home.name
os.environ["XDG_CONFIG_HOME"] = os.path.join(_home.name, ".config")
os.environ["XDG_DATA_HOME"] = os.path.join(_home.name, ".local", "share")

import zubcocoa  # noqa: E402  (after HOME is set)

COLLECTOR = os.environ.get("ZUB_COLLECTOR", "zub-collector")


class Collector:
    """zub-collector on a free loopback port with a database of its own."""

    def __init__(self):
        self.db = os.path.join(_home.name, "collector.db")
        self.process = subprocess.Popen([COLLECTOR, "--port", "0", "--db", self.db, "--quiet"],
                                        stdout=subprocess.PIPE, text=True)
        listening = json.loads(self.process.stdout.readline())
        self.url = "http://127.0.0.1:%d" % listening["port"]

    def events(self):
        out = subprocess.run([COLLECTOR, "events", "--db", self.db, "--json"], check=True,
                             capture_output=True, text=True).stdout
        return [row["event"] for row in json.loads(out)]

    def stop(self):
        self.process.terminate()
        self.process.wait(timeout=60)
        self.process.stdout.close()


class ZubcocoaTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.collector = Collector()

    @classmethod
    def tearDownClass(cls):
        cls.collector.stop()

    def test_threads_track_and_the_flush_delivers_each_event_once(self):
        threads, calls = 4, 25
        zubcocoa.set_bundle_info("CFBundleIdentifier", "com.example.python")
        zubcocoa.set_collector_address(self.collector.url)
        zubcocoa.set_smart_report(False)  # everything waits for the flush

        def work(t):
            for n in range(calls):
                with zubcocoa.page("page-%d-%d" % (t, n)):
                    zubcocoa.track("export", format="pdf", thread=t, n=n, scale=1.5, color=True)
                zubcocoa.track_page("settings-%d" % t, n)

        with zubcocoa.session("python-key", flush_timeout=120):
            workers = [threading.Thread(target=work, args=(t,)) for t in range(threads)]
            for w in workers:
                w.start()
            for w in workers:
                w.join()
        self.assertTrue(zubcocoa.flush(120), "everything tracked reached the collector")

        events = self.collector.events()
        exports = sorted((e["kv"]["thread"], e["kv"]["n"]) for e in events if e.get("ei") == "export")
        self.assertEqual(exports, [(t, n) for t in range(threads) for n in range(calls)])
        sample = next(e for e in events if e.get("ei") == "export")
        self.assertEqual(sample["kv"], {"format": "pdf", "thread": sample["kv"]["thread"],
                                        "n": sample["kv"]["n"], "scale": 1.5, "color": True})
        self.assertEqual(sample["ky"], "python-key")
        timed = sorted(e["pi"] for e in events if e.get("pi", "").startswith("page-"))
        self.assertEqual(timed, sorted("page-%d-%d" % (t, n) for t in range(threads) for n in range(calls)))
        measured = sorted((e["pi"], e["du"]) for e in events if e.get("pi", "").startswith("settings-"))
        self.assertEqual(measured, sorted(("settings-%d" % t, n) for t in range(threads) for n in range(calls)))
        mid = zubcocoa.device_id("mid")
        self.assertRegex(mid, "^[0-9a-f]{32}$")
        self.assertEqual({e.get("mid") for e in events}, {mid})

    def test_refusals_raise_and_absent_values_are_none(self):
        lines = []
        zubcocoa.set_log_sink(lines.append)
        zubcocoa.set_debug_enable(True)
        try:
            for call in (lambda: zubcocoa.track_page_begin(""), lambda: zubcocoa.track("\ud800"),
                         lambda: zubcocoa.set_collector_address("not a url"), lambda: zubcocoa.start(None)):
                with self.assertRaises(zubcocoa.Error):
                    call()
            with self.assertRaises(TypeError):
                zubcocoa.track("export", when=object())  # not JSON
        finally:
            zubcocoa.set_debug_enable(False)
            zubcocoa.set_log_sink(None)
        self.assertTrue(any("zub_track_custom_event: event_id is not UTF-8" in line for line in lines), lines)
        zubcocoa.set_channel(None)  # absent: no channel, no error
        self.assertIsNone(zubcocoa.bundle_info("No.Such.Key"))
        self.assertEqual(zubcocoa.online_property("greeting"), "")
        self.assertTrue(zubcocoa.endpoints()[0].endswith("/mstat/report"))


if __name__ == "__main__":
    unittest.main()
