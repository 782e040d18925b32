"""The bridge watcher and brctl: what the kernel says of br0, on the bus once and without gaps."""

import re

from gateway import GatewayTest, mac, wait_for

SENTINEL = mac(0xFFFF)


class Watching(GatewayTest):
    """Without a daemon; entries are put into the kernel's tables by hand."""

    def setUp(self):
        self.gateway = self.up("daemon", "dhcp")

    def settled(self, recorder):
        """What was announced up to here: the watcher reads the sentinel with or after whatever came before it."""
        self.gateway.batch(f"fdb add {SENTINEL} dev eth3 master static")
        recorder.wait(mac=SENTINEL, action="learned")
        self.gateway.batch(f"fdb del {SENTINEL} dev eth3 master")
        recorder.wait(mac=SENTINEL, action="deleted")
        return [event for event in recorder.take() if event.get("mac") != SENTINEL]

    def told(self, recorder):
        where = ("interface", "port", "address")
        return [(e["event"], e["action"], e.get("mac", e.get("port")), next((e[w] for w in where if w in e), None))
                for e in self.settled(recorder)]

    def test_each_change_is_told_once(self):
        gw = self.gateway
        with gw.recording("1*") as recorder:
            self.settled(recorder)
            for line, *expected in (
                    (f"fdb add {mac(1)} dev eth0 master static", ("109", "learned", mac(1), "eth0")),
                    (f"fdb replace {mac(1)} dev eth0 master static",),
                    (f"fdb replace {mac(1)} dev eth0 master static sticky",),
                    ("fdb add 02:00:00:00:99:01 dev eth1 master permanent",),
                    ("fdb add 02:00:00:00:99:02 dev eth1 self",),
                    (f"fdb replace {mac(1)} dev eth2 master static", ("109", "learned", mac(1), "eth2")),
                    (f"neigh add 192.168.1.7 lladdr {mac(1)} dev br0 nud stale",
                     ("110", "added", mac(1), "192.168.1.7")),
                    (f"neigh replace 192.168.1.7 lladdr {mac(1)} dev br0 nud reachable",),
                    (f"neigh replace 192.168.1.7 lladdr {mac(1)} dev br0 nud permanent",),
                    (f"neigh add 192.168.1.9 lladdr {mac(1)} dev eth0 nud stale",),
                    (f"neigh add fe80::7 lladdr {mac(1)} dev br0 nud stale",),
                    (f"neigh replace 192.168.1.7 lladdr {mac(2)} dev br0 nud stale",
                     ("110", "deleted", mac(1), "192.168.1.7"), ("110", "added", mac(2), "192.168.1.7")),
                    ("neigh replace 192.168.1.7 dev br0 nud failed", ("110", "deleted", mac(2), "192.168.1.7")),
                    (f"fdb del {mac(1)} dev eth2 master", ("109", "deleted", mac(1), "eth2"))):
                gw.batch(line)
                self.assertEqual(self.told(recorder), expected, line)
            gw("plug", "2", "device", "--silent", "static", "192.168.1.12")
            self.assertEqual(self.told(recorder)[0], ("106", "up", 2, 2))
            gw("unplug", "device")
            self.assertIn(("106", "down", 2, 2), self.told(recorder))

    def test_no_burst_puts_anything_off_or_loses_it(self):
        gw = self.gateway
        macs = [mac(n) for n in range(1, 1501)]
        watcher = gw.pid("watcher")

        def lost():
            return gw.log("watcher").count("notifications lost")

        def overrun(action, verb, port, *how):
            gw.exec("kill", "-STOP", watcher)
            gw.batch(*(" ".join(("fdb", verb, each, "dev", port, "master", *how)) for each in macs))
            before = lost()
            gw.exec("kill", "-CONT", watcher)
            wait_for(lambda: lost() > before, "an overrun")
            recorder.wait(len(macs), action=action)
            told = sorted(e["mac"] for e in self.settled(recorder) if e["action"] == action and e["interface"] == port)
            self.assertEqual(told, macs)

        with gw.recording("109") as recorder:
            overrun("learned", "add", "eth0", "static")
            overrun("learned", "replace", "eth1", "static")
            flicker = f"fdb replace {mac(2001)} dev eth2 master static\\nfdb del {mac(2001)} dev eth2 master"
            burst = gw.start_inside("bash", "-c", f"exec bridge -batch - < <(yes $'{flicker}')")
            recorder.wait(mac=mac(2001))
            told = self.settled(recorder) + self.settled(recorder) + self.settled(recorder)
            self.assertIsNone(burst.poll(), "it lasts")
            burst.terminate()
            burst.communicate()
            told += self.settled(recorder)
            self.assertLessEqual({event["mac"] for event in told}, {mac(2001)})
            overrun("deleted", "del", "eth1")

    def test_the_broker_restarts(self):
        gw = self.gateway
        gw.batch(*(f"fdb add {mac(n)} dev eth0 master static" for n in (1, 2, 3)))
        watcher = gw.pid("watcher")
        with gw.recording("1*") as recorder:
            self.settled(recorder)
            gw.exec("kill", "-STOP", watcher)
            gw("kill", "broker")
            gw.batch(f"fdb del {mac(1)} dev eth0 master", f"fdb replace {mac(2)} dev eth1 master static",
                   f"fdb add {mac(4)} dev eth2 master static")
            gw("start", "broker")
            recorder.wait_connected(2)
            gw.exec("kill", "-CONT", watcher)
            recorder.wait(mac=mac(4))
            self.assertCountEqual(self.told(recorder), [
                ("109", "deleted", mac(1), "eth0"), ("109", "learned", mac(2), "eth1"),
                ("109", "learned", mac(4), "eth2")])

    def test_the_bridge_goes_and_comes(self):
        gw = self.gateway
        gw.batch(f"fdb add {mac(1)} dev eth0 master static")
        gw.batch(f"neigh add 192.168.1.7 lladdr {mac(1)} dev br0 nud stale")
        with gw.recording("1*") as recorder:
            self.settled(recorder)
            gw.batch("link delete br0")
            recorder.wait(2, action="deleted")
            gw("stop", "watcher")
            gw("start", "watcher")  # and finds no bridge
            wait_for(lambda: "no bridge" in gw.log("watcher"), "the watcher to see that there is no bridge")
            gw.batch("link add name br0 type bridge", "link set br0 up", "link set eth0 master br0",
                     "link set eth3 master br0")
            gw.batch(f"fdb add {mac(1)} dev eth0 master static")
            recorder.wait(mac=mac(1), action="learned", interface="eth0")
            told = self.told(recorder)
            for event in (("109", "deleted", mac(1), "eth0"), ("110", "deleted", mac(1), "192.168.1.7"),
                          ("109", "learned", mac(1), "eth0")):
                self.assertEqual(told.count(event), 1, event)

    def test_a_daemon_that_comes_is_told_everything(self):
        gw = self.gateway
        gw("plug", "2", "device", "--mac", mac(2), "--silent", "static", "192.168.1.12")
        gw("plug", "ra0", "station", "--mac", mac(3), "--silent", "static", "192.168.1.13")
        with gw.recording("1*") as recorder:
            self.settled(recorder)
            for ssid, wifi in ((0, "rai0"), (4, "ra0")):
                gw("start", "daemon")
                gw.host_with(mac(2), IPAddress="192.168.1.12", Port="2")
                told = self.told(recorder)
                for event in (("109", "learned", mac(2), "eth1"), ("110", "added", mac(2), "192.168.1.12"),
                              ("106", "up", 2, 2), ("111", "joined", mac(3), None)):
                    self.assertEqual(told.count(event), 1, event)
                self.assertNotIn("does not answer", gw.log("watcher"))
                gw("kill", "daemon")
                self.assertEqual(self.settled(recorder), [])
                gw("roam", "station", wifi)
                self.assertEqual([(e["event"], e["action"], e.get("ssid", e.get("interface")))
                                  for e in self.settled(recorder) if e.get("mac") == mac(3)],
                                 [("111", "left", ssid), ("109", "learned", wifi), ("111", "joined", 4 - ssid)])

    def test_nobody_waits_for_a_silent_daemon(self):
        gw = self.gateway
        gw("start", "daemon")
        with gw.recording("109") as recorder:
            gw.exec("kill", "-STOP", gw.pid("daemon"))
            gw("stop", "watcher")
            gw("start", "watcher")
            gw.batch(f"fdb add {mac(1)} dev eth0 master static")
            recorder.wait(mac=mac(1), action="learned")
            gw.batch(f"fdb del {mac(1)} dev eth0 master")
            recorder.wait(mac=mac(1), action="deleted")
            gw.batch(f"fdb add {mac(2)} dev eth0 master static")
            recorder.wait(mac=mac(2), action="learned")
            gw.exec("kill", "-CONT", gw.pid("daemon"))  # and is told what it may have missed
            recorder.wait(2, mac=mac(2), action="learned")

    def test_brctl_lists_the_bridge(self):
        gw = self.gateway
        gw("plug", "2", "device", "--mac", mac(2), "--silent", "static", "192.168.1.12")
        gw.batch(f"fdb add {mac(3)} dev eth2 master static")
        header, *lines = gw.exec("brctl", "showmacs", "br0").splitlines()
        self.assertEqual(header, "port no\tmac addr\t\tis local?\tageing timer\tinterface")
        row = re.compile(r"  (\d)\t((?:[0-9a-f]{2}:){5}[0-9a-f]{2})\t(yes|no)\t\t   (\d\.\d\d)\t(\w+)")
        rows = [row.fullmatch(line).groups() for line in lines]
        self.assertEqual(rows, sorted(rows, key=lambda fields: fields[1]))
        self.assertEqual([(port, address, interface) for port, address, local, _, interface in rows if local == "no"],
                         [("2", mac(2), "eth1"), ("3", mac(3), "eth2")])
        self.assertEqual(sorted((port, age, interface) for port, _, local, age, interface in rows if local == "yes"),
                         [(str(n), "0.00", name) for n, name in enumerate("eth0 eth1 eth2 eth3 ra0 rai0".split(), 1)])
        for arguments in (["showmacs", "br9"], ["showmacs", "eth0"], ["showmacs"], []):
            wrong = gw.exec("brctl", *arguments, check=False)
            self.assertEqual((wrong.returncode, wrong.stdout), (1, ""))
            self.assertTrue(wrong.stderr)
