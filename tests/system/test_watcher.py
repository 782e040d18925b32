"""The bridge watcher and brctl: what the kernel says of br0, on the bus once and without gaps."""

import re
import unittest

from gateway import Gateway, mac, setUpModule, wait_for  # noqa: F401

SENTINEL = mac(0xFFFF)


class Watching(unittest.TestCase):
    """Without a daemon; entries are put into the kernel's tables by hand."""

    def setUp(self):
        self.gateway = Gateway(without=["daemon", "dhcp"])
        self.addCleanup(self.gateway.close)

    def settled(self, recorder):
        """What was announced up to here: the kernel's notifications come in order, so does the bus."""
        self.gateway.fdb(f"fdb add {SENTINEL} dev eth3 master static")
        recorder.wait(mac=SENTINEL, action="learned")
        self.gateway.fdb(f"fdb del {SENTINEL} dev eth3 master")
        recorder.wait(mac=SENTINEL, action="deleted")
        announced = [e for e in recorder.settle() if e.get("mac") != SENTINEL]
        recorder.events.clear()
        return announced

    @staticmethod
    def told(events):
        return [(e["event"], e["action"], e.get("mac", e.get("port")), e.get("port", e.get("address"))) for e in events]

    def test_each_change_is_told_once(self):
        gw = self.gateway
        with gw.recording("1*") as recorder:
            def after(program, *lines):
                gw.batch(program, *lines)
                return self.told(self.settled(recorder))

            self.settled(recorder)
            self.assertEqual(after("bridge", f"fdb add {mac(1)} dev eth0 master static"),
                             [("109", "learned", mac(1), "eth0")])
            for refresh in (("bridge", f"fdb replace {mac(1)} dev eth0 master static"),
                            ("bridge", f"fdb replace {mac(1)} dev eth0 master static sticky"),
                            ("bridge", "fdb add 02:00:00:00:99:01 dev eth1 master permanent"),
                            ("bridge", "fdb add 02:00:00:00:99:02 dev eth1 self")):
                self.assertEqual(after(*refresh), [])
            self.assertEqual(after("bridge", f"fdb replace {mac(1)} dev eth2 master static"),
                             [("109", "learned", mac(1), "eth2")])

            self.assertEqual(after("ip", f"neigh add 192.168.1.7 lladdr {mac(1)} dev br0 nud stale"),
                             [("110", "added", mac(1), "192.168.1.7")])
            for refresh in (f"neigh replace 192.168.1.7 lladdr {mac(1)} dev br0 nud reachable",
                            f"neigh replace 192.168.1.7 lladdr {mac(1)} dev br0 nud permanent",
                            f"neigh add 192.168.1.9 lladdr {mac(1)} dev eth0 nud stale",
                            f"neigh add fe80::7 lladdr {mac(1)} dev br0 nud stale"):
                self.assertEqual(after("ip", refresh), [])
            self.assertEqual(after("ip", f"neigh replace 192.168.1.7 lladdr {mac(2)} dev br0 nud stale"),
                             [("110", "deleted", mac(1), "192.168.1.7"), ("110", "added", mac(2), "192.168.1.7")])
            self.assertEqual(after("ip", "neigh replace 192.168.1.7 dev br0 nud failed"),
                             [("110", "deleted", mac(2), "192.168.1.7")])

            self.assertEqual(after("bridge", f"fdb del {mac(1)} dev eth2 master"), [("109", "deleted", mac(1), "eth2")])

            gw("plug", "2", "device", "--silent", "static", "192.168.1.12")
            self.assertEqual(self.told(self.settled(recorder))[0], ("106", "up", 2, 2))
            gw("unplug", "device")
            self.assertIn(("106", "down", 2, 2), self.told(self.settled(recorder)))
        self.assertNotIn("lost", gw.log("watcher"))

    def test_an_overrun_loses_nothing(self):
        gw = self.gateway
        macs = [mac(n) for n in range(1, 1501)]
        watcher = gw.pid("watcher")
        with gw.recording("109") as recorder:
            for action, verb, port in (("learned", "add", "eth0"), ("learned", "replace", "eth1"),
                                       ("deleted", "del", "eth1")):
                gw.exec("kill", "-STOP", watcher)
                gw.fdb(*(f"fdb {verb} {each} dev {port} master {'' if verb == 'del' else 'static'}" for each in macs))
                lost = gw.log("watcher").count("notifications lost")
                gw.exec("kill", "-CONT", watcher)
                wait_for(lambda: gw.log("watcher").count("notifications lost") > lost, "an overrun")
                recorder.wait(len(macs), action=action)
                told = sorted(e["mac"] for e in self.settled(recorder) if e["action"] == action and e["port"] == port)
                self.assertEqual(told, macs)

    def test_the_broker_restarts(self):
        gw = self.gateway
        gw.fdb(*(f"fdb add {mac(n)} dev eth0 master static" for n in (1, 2, 3)))
        watcher = gw.pid("watcher")
        with gw.recording("1*") as recorder:
            self.settled(recorder)
            gw.exec("kill", "-STOP", watcher)
            gw("kill", "broker")
            gw.fdb(f"fdb del {mac(1)} dev eth0 master", f"fdb replace {mac(2)} dev eth1 master static",
                   f"fdb add {mac(4)} dev eth2 master static")
            gw("start", "broker")
            recorder.wait_connected(2)
            gw.exec("kill", "-CONT", watcher)
            recorder.wait(mac=mac(4))
            self.assertCountEqual(self.told(self.settled(recorder)), [
                ("109", "deleted", mac(1), "eth0"), ("109", "learned", mac(2), "eth1"),
                ("109", "learned", mac(4), "eth2")])

    def test_the_bridge_goes_and_comes(self):
        gw = self.gateway
        gw.fdb(f"fdb add {mac(1)} dev eth0 master static")
        gw.batch("ip", f"neigh add 192.168.1.7 lladdr {mac(1)} dev br0 nud stale")
        with gw.recording("1*") as recorder:
            self.settled(recorder)
            gw.batch("ip", "link delete br0")
            recorder.wait(2, action="deleted")
            gw("stop", "watcher")
            gw("start", "watcher")  # and finds no bridge
            wait_for(lambda: "no bridge" in gw.log("watcher"), "the watcher to see that there is no bridge")
            gw.batch("ip", "link add name br0 type bridge", "link set br0 up", "link set eth0 master br0",
                     "link set eth3 master br0")
            gw.fdb(f"fdb add {mac(1)} dev eth0 master static")
            recorder.wait(mac=mac(1), action="learned", port="eth0")
            told = self.told(self.settled(recorder))
            self.assertEqual(told.count(("109", "deleted", mac(1), "eth0")), 1)
            self.assertEqual(told.count(("110", "deleted", mac(1), "192.168.1.7")), 1)
            self.assertEqual(told.count(("109", "learned", mac(1), "eth0")), 1)

    def test_a_daemon_that_comes_is_told_everything(self):
        gw = self.gateway
        gw("plug", "2", "device", "--mac", mac(2), "--silent", "static", "192.168.1.12")
        gw("plug", "ra0", "station", "--mac", mac(3), "--silent", "static", "192.168.1.13")
        with gw.recording("1*") as recorder:
            self.settled(recorder)
            for ssid, wifi in ((0, "rai0"), (4, "ra0")):
                gw("start", "daemon")
                gw.host_with(mac(2), IPAddress="192.168.1.12", Port="2")
                events = self.settled(recorder)
                told = self.told(events)
                self.assertEqual([(e["action"], e["ssid"]) for e in events if e["event"] == "111"], [("joined", ssid)])
                self.assertEqual(told.count(("109", "learned", mac(2), "eth1")), 1)
                self.assertEqual(told.count(("110", "added", mac(2), "192.168.1.12")), 1)
                self.assertEqual(told.count(("106", "up", 2, 2)), 1)
                gw("kill", "daemon")
                self.assertEqual(self.settled(recorder), [])
                gw("roam", "station", wifi)
                self.assertEqual([(e["event"], e["action"], e.get("ssid", e.get("port")))
                                  for e in self.settled(recorder) if e.get("mac") == mac(3)],
                                 [("111", "left", ssid), ("109", "learned", wifi), ("111", "joined", 4 - ssid)])

    def test_brctl_lists_the_bridge(self):
        gw = self.gateway
        gw("plug", "2", "device", "--mac", mac(2), "--silent", "static", "192.168.1.12")
        gw.fdb(f"fdb add {mac(3)} dev eth2 master static")
        lines = gw.exec("brctl", "showmacs", "br0").splitlines()
        self.assertEqual(lines[0], "port no\tmac addr\t\tis local?\tageing timer\tinterface")
        rows = {line.split()[1]: line.split() for line in lines[1:]}
        for address, port, interface in ((mac(2), "2", "eth1"), (mac(3), "3", "eth2")):
            self.assertEqual(rows[address][:3] + rows[address][4:], [port, address, "no", interface])
            self.assertRegex(rows[address][3], r"^\d+\.\d\d$")
        self.assertEqual(sorted(row[4] for row in rows.values() if row[2] == "yes"), ["eth0", "eth1", "eth2", "eth3", "ra0", "rai0"])
        self.assertTrue(all(re.fullmatch(r"([0-9a-f]{2}:){5}[0-9a-f]{2}", each) for each in rows))
        for arguments in (["showmacs", "br9"], ["showmacs", "eth0"], ["showmacs"], []):
            wrong = gw.exec("brctl", *arguments, check=False)
            self.assertEqual((wrong.returncode, wrong.stdout), (1, ""))
            self.assertTrue(wrong.stderr)


if __name__ == "__main__":
    unittest.main()
