"""A simulated gateway (tools/gateway) for tests, and what they ask it."""

import contextlib
import glob
import itertools
import json
import os
import subprocess
import tempfile
import time
import unittest

ROOT = os.path.realpath(os.path.join(os.path.dirname(__file__), "..", ".."))
BUILD = os.environ.get("OVANI_BUILD", os.path.join(ROOT, "build", "dev"))
GATEWAY = os.path.join(ROOT, "tools", "gateway")
SAMPLES = glob.glob(os.path.join(ROOT, "tools", "samples", "*.conf"))
OPERATORS = sorted(os.path.basename(sample).removesuffix(".conf") for sample in SAMPLES)
HOSTS = "InternetGatewayDevice.LANDevice.1.Hosts."
PATIENCE = 30  # seconds before something that should happen counts as not happening

GBK_NAME = "客厅电视"  # the second byte of each character is above 0x80


def mac(number):
    return f"02:00:00:0a:{number >> 8:02x}:{number & 255:02x}"


def word(value):
    """One of a line of `ovanictl emit lines`."""
    data = value if isinstance(value, bytes) else str(value).encode()
    return "".join(chr(c) if 0x20 < c < 0x7f and c != 0x5c else f"\\x{c:02X}" for c in data) or '""'


def replay(file, *options):
    """Ends with the program's status. It shows its processes a /proc in which the leak checker finds nothing."""
    return subprocess.run([os.path.join(BUILD, "bin", "ovanictl"), "replay", *options, file], check=False,
                          stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=120,
                          env=os.environ | {"LSAN_OPTIONS": "detect_leaks=0"})


def wait_for(condition, what, patience=PATIENCE):
    """Polls until the condition gives something true, and returns that."""
    end = time.monotonic() + patience
    while not (result := condition()):
        if time.monotonic() > end:
            raise AssertionError(f"waited {patience} s for {what}; last seen: {result!r}")
        time.sleep(0.05)
    return result


class GatewayTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        if os.geteuid() != 0:
            assert not os.environ.get("CI"), "needs root, and CI must not skip it"
            raise unittest.SkipTest("needs root")

    def up(self, *without, **options):
        """A gateway until the test ends."""
        gateway = Gateway(*without, **options)
        self.addCleanup(gateway.close)
        return gateway


class Gateway:
    """Raised on creation, taken away by close(), or by the end of this process however it comes."""

    def __init__(self, *without, **options):
        self.state = tempfile.mkdtemp(prefix="ovani-test.")
        arguments = ["--build", BUILD, "--owner", str(os.getpid())]
        for name, value in [("without", service) for service in without] + list(options.items()):
            arguments += ["--" + name.replace("_", "-"), str(value)]
        self("up", *arguments)

    def close(self):
        """Ends every service as a gateway's shutdown does; a sanitizer that had something to say fails the test."""
        for service in ("daemon", "watcher", "journal", "sysmgr", "broker"):
            self("stop", service, check=False)
        complaints = [line for line in self("logs", "", "1000").splitlines()
                      if "Sanitizer" in line or "runtime error:" in line]
        self("down")
        assert not complaints, complaints

    def __call__(self, *arguments, check=True, **how):
        """Runs a command of tools/gateway and returns its output."""
        if "input" not in how:
            how["stdin"] = subprocess.DEVNULL
        done = subprocess.run([GATEWAY, "-s", self.state, *arguments], capture_output=True, text=True, timeout=120,
                              **how)
        if check and done.returncode != 0:
            raise AssertionError(f"gateway {arguments[0:4]} failed ({done.returncode}): {done.stderr}\n{self.logs()}")
        return done.stdout if check else done

    def logs(self):
        return self("logs", check=False).stdout

    def exec(self, *command, **how):
        return self("exec", *command, **how)

    def ctl(self, *command, **how):
        return self.exec("ovanictl", *command, **how)

    def emit(self, *events):
        """Sends events, each in the words of `ovanictl emit`. What waits for one client beyond a megabyte is lost:
        of many, the daemon is let settle every few hundred."""
        lines = [" ".join(map(word, event)) for event in events]
        for first in range(0, len(lines), 500):
            self.ctl("emit", "lines", input="\n".join(lines[first:first + 500]))
            if len(events) > 500:
                self.settle_daemon()

    def bring(self, number, port="eth0"):
        """A host by its events alone; its object's path."""
        self.emit(("mac", "add", mac(number), "-p", port), ("arp", "add", f"192.168.1.{number}", mac(number)))
        return f"{HOSTS}Host.{self.host_with(mac(number), Active='1')['instance']}."

    def start_inside(self, *command, stdout=subprocess.PIPE):
        """A process inside; all it says goes to its `stdout`."""
        return subprocess.Popen([GATEWAY, "-s", self.state, "exec", *command], text=True, errors="replace",
                                stdin=subprocess.DEVNULL, stdout=stdout, stderr=subprocess.STDOUT)

    def read(self, *path):
        with open(os.path.join(self.state, *path), encoding="utf-8", errors="replace") as file:
            return file.read()

    def pid(self, service):
        """Of a service, as seen inside."""
        return self.read("run", service + ".pid").strip()

    def log(self, service):
        return self.read("log", service + ".log")

    def table(self, *command):
        """The rows of a table of ovanictl."""
        schema, rows = json.loads(self.ctl(*command, "--json")).values()
        assert schema == 1, schema
        return rows

    def hosts(self):
        """The host objects by MAC; each has its parameters, "instance" and what `ovanictl hosts` makes of them."""
        found = {}
        for host in self.table("hosts"):
            host.update(host.pop("parameters"))
            assert host["MACAddress"] not in found, "two objects for one host"
            found[host["MACAddress"]] = host
        return found

    def host(self, address):
        return self.hosts().get(address)

    def wait_for_host(self, address, condition, what):
        try:
            return wait_for(lambda: condition(self.host(address)), f"{address} {what}")
        except AssertionError as error:
            raise AssertionError(f"{error}; the host: {self.host(address)}\n{self.logs()}") from None

    def host_with(self, address, **parameters):
        """Waits for a host that has these parameters."""
        def fits(host):
            return host if host and all(host[k] == v for k, v in parameters.items()) else None
        return self.wait_for_host(address, fits, f"with {parameters}")

    def host_gone(self, address):
        self.wait_for_host(address, lambda host: host is None, "to be retired")

    def get(self, path):
        return self.ctl("get", path).rstrip("\n")

    def entries(self):
        return int(self.get(HOSTS + "HostNumberOfEntries"))

    def settle_daemon(self):
        """Returns when the daemon has handled every event sent so far: it answers calls in the same order."""
        answer = self.exec("ubus", "call", "ovani", "no_such_method", check=False)
        assert "Method not found" in answer.stderr, answer

    def batch(self, *lines):
        """Lines for `bridge` (fdb ...) or for `ip`."""
        self.exec("bridge" if lines[0].startswith("fdb") else "ip", "-batch", "-", input="\n".join(lines) + "\n")

    def recording(self, *patterns):
        return contextlib.closing(Recorder(self, patterns))


class Recorder:
    """What went over the bus, decoded, in order."""

    def __init__(self, gateway, patterns):
        self.gateway = gateway
        self.taken = 0
        marked = [*patterns, "mark.*"] if patterns else []
        with tempfile.NamedTemporaryFile(dir=gateway.state, delete=False) as file:
            self.file = file.name
            self.process = gateway.start_inside("ovanictl", "events", "--json", *marked, stdout=file)
        self.wait_connected(1)

    def lines(self):
        with open(self.file, encoding="utf-8") as file:
            return [line for line in file if line.endswith("\n")]

    @property
    def events(self):
        """Without what every event has: its schema, its time and its bytes."""
        events = [json.loads(line) for line in self.lines() if line.startswith("{")][self.taken:]
        return [{k: v for k, v in event.items() if k not in ("schema", "time", "us", "raw")} for event in events]

    def wait_connected(self, times):
        wait_for(lambda: self.lines().count("listening\n") >= times, "the recorder to listen")

    def close(self):
        self.process.terminate()
        self.process.wait()

    def select(self, **fields):
        return [event for event in self.events if all(event.get(k) == v for k, v in fields.items())]

    def wait(self, count=1, **fields):
        wait_for(lambda: len(self.select(**fields)) >= count, f"{count} events {fields}, of {self.events[-20:]}")

    def settle(self):
        """Everything sent over the bus so far."""
        mark = f"mark.{time.monotonic_ns()}"
        self.gateway.emit(("raw", mark))
        self.wait(event=mark)
        return list(itertools.takewhile(lambda event: event["event"] != mark, self.events))

    def take(self):
        """The same, and forgets it."""
        events = self.settle()
        self.taken += len(events) + 1
        return events

    def presence(self):
        """What was announced of each host, in order, once the daemon has handled all."""
        self.gateway.settle_daemon()
        told = {}
        for event in self.settle():
            if event["event"] == "lanhost_event":
                told.setdefault(event["mac"].lower(), []).append(event["action"])
        return told
