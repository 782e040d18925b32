"""ovanictl top, on a terminal of its own."""

import os
import signal
import subprocess
import unicodedata

from gateway import GATEWAY, GBK_NAME, HOSTS, GatewayTest, mac, wait_for

KEPT = ["NAME", "ADDRESS", "PORT", "ACTIVE"]


class Terminal:
    """tmux, with a shell in it."""

    def __init__(self, gateway, columns, rows):
        self.tmux = ["tmux", "-f", "/dev/null", "-S", os.path.join(gateway.state, "tmux")]
        subprocess.run([*self.tmux, "new-session", "-d", "-x", str(columns), "-y", str(rows), "bash", "--norc"],
                       check=True, env=os.environ | {"PS1": "$ ", "LC_ALL": "C.UTF-8"})
        self.commands = 0
        self.top = f"{GATEWAY} -s {gateway.state} exec ovanictl top"

    def __call__(self, *command):
        return subprocess.run([*self.tmux, *command], check=True, capture_output=True, text=True).stdout

    def lines(self):
        return self("capture-pane", "-p").splitlines()

    def type(self, *keys):
        self("send-keys", *keys)

    def until(self, condition, what):
        """Waits for a screen, and returns its lines."""
        return wait_for(lambda: condition(lines := self.lines()) and lines, what)

    def shows(self, *texts):
        return self.until(lambda lines: all(any(text in line for line in lines) for text in texts), texts)

    def command(self, text):
        """The lines that a command of the shell prints."""
        self.commands += 1
        end = f"end of {self.commands}"
        self.type(f"clear; {text}; echo {end}", "Enter")
        lines = self.until(lambda lines: end in lines, text)
        return lines[:lines.index(end)]


class Top(GatewayTest):
    def terminal(self, gateway, columns, rows):
        terminal = Terminal(gateway, columns, rows)
        self.addCleanup(terminal, "kill-server")
        return terminal

    def test_hosts_on_screens_of_all_sizes(self):
        gw = self.up("watcher", "dhcp")
        names = {number: f"host-{number}" for number in range(1, 41)} | {2: GBK_NAME, 3: "n" * 100}
        gw.emit(*(event for number, name in names.items() for event in (
            ("mac", "add", mac(number), "-p", "eth1" if number % 2 else "rai0"),
            ("arp", "add", f"192.168.1.{100 + number}", mac(number)),
            ("dhcp-text", b"d#ADD#192.168.1.%d#DHCP#t#600#%b###%b" % (
                100 + number, name.encode("gbk" if number == 2 else "utf-8"), mac(number).encode())))))
        gw.settle_daemon()
        terminal = self.terminal(gw, 80, 24)
        terminal.type(terminal.top, "Enter")

        lines = terminal.shows("HOSTS   40, 40 active", "rows below")
        titles = next(line for line in lines if "ADDRESS" in line)
        self.assertEqual([title for title in titles.split() if title in KEPT], KEPT)
        self.assertRegex(lines[lines.index(titles) + 2], fr" {GBK_NAME} +192\.168\.1\.102 .* SSID 5 \(rai0\) .* yes$")
        self.assertRegex(lines[lines.index(titles) + 3], r" n+…  192\.168\.1\.103 ")
        for line in lines:
            self.assertLessEqual(sum(2 if unicodedata.east_asian_width(c) == "W" else 1 for c in line), 80, line)

        terminal.type("End")
        terminal.shows("host-40", "rows above")
        terminal.type(">", "r", "Home")  # the next column, and the other way round
        lines = terminal.shows("NAME↑", GBK_NAME)
        self.assertEqual([lines.index(line) for name in (GBK_NAME, " nn", "host-40 ", "host-39 ")
                          for line in lines if name in line], [2 + i for i in range(1, 5)])
        terminal.type("/", "host-3")
        shown = terminal.until(lambda lines: not any("host-40" in line for line in lines), "the filter")
        self.assertEqual([number for number in names if any(f" host-{number} " in line for line in shown)],
                         list(range(30, 40)))
        terminal.type("7", "Enter", "Enter")
        terminal.shows(HOSTS + "Host.37.", "host-37")
        terminal.type("Escape")
        terminal.shows("NAME↑", "filter: host-37")
        terminal.type("Escape")

        for columns, rows, wanted in ((120, 40, [" MAC ", *KEPT]), (66, 10, KEPT), (9, 3, [":"]), (80, 24, KEPT)):
            terminal("resize-window", "-x", str(columns), "-y", str(rows))
            terminal.until(lambda lines: len(lines) == rows and all(any(text in line for line in lines) for text in wanted)
                           and any(" MAC " in line for line in lines) == (columns == 120), (columns, wanted))

        gw("stop", "daemon")
        terminal.shows("ovani: fault since", "daemon does not run")
        gw("start", "daemon")
        terminal.shows("ovani: warning since", "watcher")

    def test_the_terminal_is_as_it_was(self):
        gw = self.up("watcher", "dhcp")
        terminal = self.terminal(gw, 80, 24)
        before = terminal.command("stty -a")

        def ended(how):
            self.assertEqual(terminal.command("stty -a"), before, how)
            self.assertEqual(terminal.command("jobs"), [], how)

        for key in ("q", "C-c"):
            terminal.type(f"clear; echo before; {terminal.top}", "Enter")
            terminal.shows("HOSTS")
            terminal.type("C-z")
            terminal.shows("Stopped", "before")
            self.assertEqual(terminal.command("stty -a"), before)
            terminal.type("fg", "Enter")
            terminal.shows("HOSTS")
            terminal.type(key)
            terminal.until(lambda lines: not any("HOSTS " in line for line in lines), key)
            ended(key)

        parent = os.path.join(gw.state, "parent")
        terminal.type(f"clear; bash -c 'echo $$ >{parent}; {terminal.top}; :'", "Enter")
        terminal.shows("HOSTS")
        os.kill(int(gw.read("parent")), signal.SIGKILL)
        terminal.shows("Killed")
        terminal.until(lambda lines: not any("HOSTS " in line for line in lines), "the end after the parent's")
        ended("without its parent")
