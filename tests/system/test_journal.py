"""What happened: the journal's files, ovanictl history, timeline, metrics and report, and "ovani.journal"."""

import base64
import glob
import json
import os
import re
import stat
import xml.etree.ElementTree

from gateway import GBK_NAME, GatewayTest, mac, wait_for

HOSTILE = '"><script>alert(1)</script>&'


def lease(number, name, action="add"):
    return ("dhcp", action, f"192.168.1.{number}", mac(number), "-n", name)


class Journal(GatewayTest):
    def setUp(self):
        self.gateway = self.up("watcher", "dhcp", operator="cm")

    def lines(self, file="journal.jsonl"):
        return [json.loads(line) for line in self.gateway.read("log", "journal", file).splitlines()]

    def marks(self):
        return [line["mark"] for line in self.lines() if "mark" in line]

    def ask(self, method, **arguments):
        return json.loads(self.gateway.exec("ubus", "call", "ovani.journal", method, json.dumps(arguments)))

    def stays(self, *arguments):
        return json.loads(self.gateway.ctl("history", "--json", *arguments))["stays"]

    def test_who_was_there_and_why_it_left(self):
        gateway = self.gateway
        for number, port, name in ((1, "eth0", HOSTILE), (2, "eth1", GBK_NAME.encode("gbk")), (3, "eth2", "pc")):
            gateway.bring(number, port)
            gateway.emit(lease(number, name))
        gateway.emit(("wifi", "join", mac(4), "4"), ("mac", "add", mac(4), "-p", "rai0"),
                     ("arp", "add", "192.168.1.4", mac(4)))
        gateway.host_with(mac(4), Active="1")
        gateway.emit(("port", "down", "1"), lease(2, "", "del"), ("mac", "del", mac(3), "-p", "eth2"),
                     ("wifi", "leave", mac(4), "4"))
        wait_for(lambda: len([stay for stay in self.stays() if stay["to"]]) == 4, "all to have left")
        told = {stay["mac"]: stay for stay in self.stays()}
        self.assertEqual(
            [(told[mac(n)]["name"], told[mac(n)]["places"], told[mac(n)]["why"]) for n in (1, 2, 3, 4)],
            [(HOSTILE, ["LAN1"], "link down"), (GBK_NAME, ["LAN2"], "lease released"), ("pc", ["LAN3"], "MAC aged"),
             ("", ["SSID 5 (rai0)"], "Wi-Fi leave")])
        # One who is there while the daemon dies, and whom it finds again.
        gateway.bring(3, "eth2")
        gateway("kill", "daemon")
        wait_for(lambda: "daemon went" in self.marks(), "the journal to notice")
        self.assertEqual([stay["why"] for stay in self.stays("pc")], ["MAC aged", "daemon ended"])
        gateway("start", "daemon")
        gateway.bring(3, "eth2")

        # The bus, the files and a journal that starts again say the same.
        whole = self.stays()
        self.assertEqual([stay["why"] for stay in whole if stay["mac"] == mac(3)], ["MAC aged", "daemon ended", ""])
        gateway("kill", "journal")
        gateway("start", "journal")
        # All but the clock's microseconds, which are reckoned anew.
        timeless = [stay | {"from": 0, "to": bool(stay["to"]), "seconds": 0} for stay in whole]
        for stays in (self.ask("history")["stays"], self.stays()):
            self.assertEqual([stay | {"from": 0, "to": bool(stay["to"]), "seconds": 0} for stay in stays], timeless)
        self.assertEqual([stay["mac"] for stay in self.ask("history", host=GBK_NAME)["stays"]], [mac(2)])
        self.assertEqual(self.ask("history", since=0)["stays"][0]["to"], None)
        self.assertEqual({host["mac"]: host["state"] for host in self.ask("hosts")["hosts"]},
                         {mac(n): "on line" if n == 3 else "off line" for n in (1, 2, 3, 4)})
        bars = gateway.ctl("timeline").splitlines()
        self.assertRegex(bars[0], r"^HOST +\d\d:\d\d:\d\d +\d\d:\d\d:\d\d$")
        self.assertEqual([bar.endswith("█") for bar in bars[1:]], [False, False, True, False], bars)
        for wrong in (["history", "nobody"], ["history", "--since", "5x"], ["history", "-d", "/none"]):
            self.assertEqual(gateway.ctl(*wrong, check=False).returncode, 1, wrong)
        self.metrics()
        self.report()

    def metrics(self):
        text = self.gateway.ctl("metrics")
        samples = dict(line.rsplit(" ", 1) for line in text.splitlines() if not line.startswith("#"))
        for line in text.splitlines():
            self.assertRegex(line, r'^(# (HELP|TYPE) \w+ .+|\w+(\{(\w+="([^"\\\n]|\\.)*",?)+\})? \d+)$')
        self.assertEqual([samples[f'ovani_hosts{{state="{state}"}}'] for state in ("on line", "off line", "seen")],
                         ["1", "3", "0"])
        name = HOSTILE.replace('"', '\\"')
        self.assertEqual(samples[f'ovani_host_up{{mac="{mac(1)}",name="{name}",address="192.168.1.1",place="LAN1"}}'],
                         "0")
        self.assertEqual((samples["ovani_up"], samples["ovani_journal_lost_total"]), ("1", "0"))
        self.gateway("stop", "journal")
        self.assertEqual(self.gateway.ctl("metrics", check=False).returncode, 3)

    def report(self):
        file = os.path.join(self.gateway.state, "page.html")
        self.gateway.ctl("report", "-o", file)
        page = self.gateway.read("page.html")
        picture = self.gateway.ctl("report", "--svg")
        xml.etree.ElementTree.fromstring(picture)
        xml.etree.ElementTree.fromstring(re.sub("<!DOCTYPE.*|<meta.*", "", page))
        for text in (page, picture):
            self.assertNotIn("<script", text)
            self.assertNotRegex(text.replace("http://www.w3.org/2000/svg", ""), r"(?i)https?:|//\w|\b(src|href)=|url\(")
            self.assertIn(GBK_NAME, text)
            self.assertIn("&quot;&gt;&lt;script&gt;", text)
        # What is bound, who is there and when, and what the doctor says.
        for part in ("VLAN 20 → VLAN 48", "SSID 5 (rai0)", "link down", "default-src 'none'", ">warning<"):
            self.assertIn(part, page)
        self.assertEqual(page.count('class="gone"'), 2 * picture.count('class="gone"') + 3)

    def test_bounded_private_and_never_silent_about_losses(self):
        gateway = self.gateway
        gateway("stop", "journal")
        directory = os.path.join(gateway.state, "log", "journal")
        gateway.bring(9)
        journal = gateway.start_inside("ovani-journal", "--bytes", str(256 << 10))
        self.addCleanup(lambda: (journal.terminate(), journal.communicate()))
        wait_for(lambda: self.marks()[-1:] == ["daemon came"] or "connected" in self.marks()[-2:], "it to listen")
        self.assertEqual(gateway.ctl("metrics", check=False).returncode, 0)
        second = gateway.exec("ovani-journal", check=False)
        self.assertEqual((second.returncode, "another journal writes there" in second.stderr), (1, True), second)

        gateway.emit(*[("mac", "add", mac(n), "-p", "eth1") for n in range(1000, 3000)])
        wait_for(lambda: self.ask("health")["events"]["109"] >= 2000, "all to be heard")
        files = glob.glob(directory + "/*")
        self.assertEqual(len(files), 2)
        self.assertEqual({stat.S_IMODE(os.stat(file).st_mode) for file in files}, {0o600})
        self.assertEqual(stat.S_IMODE(os.stat(directory).st_mode), 0o700)
        self.assertLessEqual(max(os.path.getsize(file) for file in files), 256 << 10)
        first = self.lines()[:2]
        self.assertEqual((first[0]["journal"], list(first[1])[2]), (1, "on_line"))
        event = self.lines()[-1]
        self.assertEqual((event["event"], event["mac"]), ("109", mac(2999)))
        self.assertIn(b"mac_struct", base64.b64decode(event["raw"]))

        # No room, and room again.
        os.rename(directory, directory + ".old")
        with open(directory, "w", encoding="ascii"):
            pass
        gateway.emit(("port", "up", "2"), ("port", "down", "2"))
        wait_for(lambda: self.ask("health")["lost"] == 2, "the loss to be counted")
        self.assertTrue(self.ask("health")["failure"])
        os.remove(directory)
        gateway.emit(("port", "up", "2"))
        wait_for(lambda: os.path.exists(directory + "/journal.jsonl") and [1 for line in self.lines() if "action" in line],
                 "it to go on")
        told = self.lines()[2:]
        self.assertEqual((told[0]["mark"], told[0]["count"], told[-1]["action"]), ("lost", 2, "up"))
        self.assertGreater(self.ask("health")["lost"], 0)
