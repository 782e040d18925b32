"""A simulated gateway (tools/gateway) for tests, and what they ask it."""

import contextlib
import json
import os
import subprocess
import tempfile
import threading
import time
import unittest

ROOT = os.path.realpath(os.path.join(os.path.dirname(__file__), "..", ".."))
BUILD = os.environ.get("OVANI_BUILD", os.path.join(ROOT, "build", "dev"))
GATEWAY = os.path.join(ROOT, "tools", "gateway")
HOSTS = "InternetGatewayDevice.LANDevice.1.Hosts."
PATIENCE = 30  # seconds before something that should happen counts as not happening

GBK_NAME = "客厅电视"  # the second byte of each character is above 0x80


def setUpModule():  # imported by every test module
    if os.geteuid() == 0:
        return
    if os.environ.get("CI"):
        raise AssertionError("needs root, and CI must not skip it")
    raise unittest.SkipTest("needs root")


def mac(number):
    return f"02:00:00:0a:{number >> 8:02x}:{number & 255:02x}"


def wait_for(condition, what, patience=PATIENCE):
    """Polls until the condition gives something true, and returns that."""
    end = time.monotonic() + patience
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise AssertionError(f"waited {patience} s for {what}; last seen: {result!r}")
        time.sleep(0.05)


class Gateway:
    """Raised on creation, taken away by close(), or by the end of this process however it comes."""

    def __init__(self, **options):
        self.state = tempfile.mkdtemp(prefix="ovani-test.")
        arguments = ["--build", BUILD, "--owner", str(os.getpid())]
        for name, value in options.items():
            for each in value if isinstance(value, list) else [value]:
                arguments += ["--" + name.replace("_", "-"), str(each)]
        self.marks = 0
        self("up", *arguments)

    def close(self):
        """Ends every service as a gateway's shutdown does; a sanitizer that had something to say fails the test."""
        for service in ("daemon", "watcher", "sysmgr", "broker"):
            self("stop", service, check=False)
        complaints = [line for line in self("logs", "", "1000").splitlines()
                      if "Sanitizer" in line or "runtime error:" in line]
        self("down")
        assert not complaints, complaints

    def __call__(self, *arguments, check=True, text=True):
        """Runs a command of tools/gateway and returns its output."""
        done = subprocess.run([GATEWAY, "-s", self.state, *arguments], capture_output=True, text=text,
                              stdin=subprocess.DEVNULL, timeout=120)
        if check and done.returncode != 0:
            raise AssertionError(f"gateway {arguments[0:4]} failed ({done.returncode}): {done.stderr}\n{self.logs()}")
        return done.stdout if check else done

    def logs(self):
        return subprocess.run([GATEWAY, "-s", self.state, "logs"], capture_output=True, text=True).stdout

    def exec(self, *command, **how):
        return self("exec", *command, **how)

    def ctl(self, *command, **how):
        return self.exec("ovanictl", *command, **how)

    def emit(self, *event):
        self.ctl("emit", *event)

    def start_inside(self, *command):
        """A process inside, with pipes."""
        return subprocess.Popen([GATEWAY, "-s", self.state, "exec", *command], text=True,
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def pid(self, service):
        """Of a service, as seen inside."""
        with open(os.path.join(self.state, "run", service + ".pid"), encoding="ascii") as file:
            return file.read().strip()

    def log(self, service):
        with open(os.path.join(self.state, "log", service + ".log"), encoding="utf-8", errors="replace") as file:
            return file.read()

    def hosts(self):
        """The host objects by MAC; each has its parameters, "instance" and what `ovanictl hosts` makes of them."""
        found = {}
        for host in json.loads(self.ctl("hosts", "--json")):
            host.update(host.pop("parameters"))
            assert host["MACAddress"] not in found, "two objects for one host"
            found[host["MACAddress"]] = host
        return found

    def host(self, address):
        return self.hosts().get(address)

    def host_with(self, address, **parameters):
        """Waits for a host that has these parameters."""
        def look():
            nonlocal host
            host = self.host(address)
            return host if host and all(host[name] == value for name, value in parameters.items()) else None
        host = None
        try:
            return wait_for(look, f"{address} with {parameters}")
        except AssertionError as error:
            raise AssertionError(f"{error}; the host: {host}\n{self.logs()}") from None

    def host_gone(self, address):
        try:
            wait_for(lambda: self.host(address) is None, f"{address} to be retired")
        except AssertionError as error:
            raise AssertionError(f"{error}\n{self.logs()}") from None

    def get(self, path):
        return self.ctl("get", path).rstrip("\n")

    def entries(self):
        return int(self.get(HOSTS + "HostNumberOfEntries"))

    def daemon_ready(self, times=1):
        wait_for(lambda: self.log("sysmgr").count("ovani is ready") >= times, "the daemon to listen")

    def settle_daemon(self):
        """Returns when the daemon has handled every event sent so far: it answers calls in the same order."""
        answer = self.exec("ubus", "call", "ovani", "no_such_method", check=False)
        assert "Method not found" in answer.stderr, answer

    def fdb(self, *lines):
        self.batch("bridge", *lines)

    def batch(self, program, *lines):
        path = os.path.join(self.state, "batch")
        with open(path, "w", encoding="ascii") as file:
            file.write("\n".join(lines) + "\n")
        self.exec(program, "-batch", path)

    @contextlib.contextmanager
    def recording(self, *patterns):
        recorder = Recorder(self, patterns)
        try:
            yield recorder
        finally:
            recorder.close()


class Recorder:
    """What went over the bus, decoded, in order."""

    def __init__(self, gateway, patterns):
        self.gateway = gateway
        self.events = []
        self.connections = 0
        marked = [*patterns, "test.mark"] if patterns else []
        self.process = gateway.start_inside("ovanictl", "events", "--json", *marked)
        self.threads = [threading.Thread(target=self._read_events), threading.Thread(target=self._read_messages)]
        for thread in self.threads:
            thread.start()
        self.wait_connected(1)

    def _read_events(self):
        for line in self.process.stdout:
            self.events.append(json.loads(line))

    def _read_messages(self):
        for line in self.process.stderr:
            self.connections += line == "listening\n"

    def wait_connected(self, times):
        wait_for(lambda: self.connections >= times, "the recorder to listen")

    def close(self):
        self.process.terminate()
        self.process.wait()
        for thread in self.threads:
            thread.join()
        self.process.stdout.close()
        self.process.stderr.close()

    def select(self, **fields):
        return [event for event in list(self.events) if all(event.get(k) == v for k, v in fields.items())]

    def wait(self, count=1, **fields):
        wait_for(lambda: len(self.select(**fields)) >= count, f"{count} events {fields}, of {self.events[-20:]}")

    def settle(self):
        """Returns when everything sent over the bus so far is in `events`."""
        self.gateway.marks += 1
        self.gateway.emit("raw", "test.mark", "--json", json.dumps({"mark": self.gateway.marks}))
        mark = json.dumps({"mark": self.gateway.marks}, separators=(",", ":"))
        wait_for(lambda: any(e["event"] == "test.mark" and json.loads(e["message"]) == json.loads(mark)
                             for e in list(self.events)), "the recorder to catch up")
        return [event for event in self.events if event["event"] != "test.mark"]
