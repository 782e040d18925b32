"""run.sh, and that a simulated gateway leaves nothing behind."""

import contextlib
import glob
import os
import signal
import subprocess
import tempfile

from gateway import BUILD, GATEWAY, GBK_NAME, OPERATORS, ROOT, Gateway, GatewayTest, replay, wait_for


def traces(state):
    """Processes that have to do with a gateway, and its files."""
    found = [state] if os.path.exists(state) else []
    for file in glob.glob("/proc/[0-9]*/cmdline") + glob.glob("/proc/[0-9]*/environ"):
        with contextlib.suppress(OSError), open(file, "rb") as content:  # its process may have ended
            if state.encode() in content.read() and not file.startswith(f"/proc/{os.getpid()}/"):
                found.append(file)
    return found


class Run(GatewayTest):
    state = os.path.join(tempfile.gettempdir(), f"ovani-run-test.{os.getpid()}")

    def start(self, *options, build=BUILD):
        options = [os.path.join(ROOT, "run.sh"), "--build", build, *options]
        return subprocess.Popen(options, text=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, start_new_session=True,
                                env=os.environ | {"OVANI_GATEWAY": self.state})

    def nothing_left(self):
        wait_for(lambda: not traces(self.state), "everything to be gone")

    def test_once(self):
        recordings = tempfile.TemporaryDirectory()
        self.addCleanup(recordings.cleanup)
        for operator, run in [(operator, self.start("--once", "--operator", operator, "--record",
                                                    os.path.join(recordings.name, operator)))
                              for operator in OPERATORS]:
            output = run.communicate(timeout=120)[0]
            self.assertEqual(run.returncode, 0, output)
            replayed = replay(os.path.join(recordings.name, operator))
            self.assertIn(": no difference\n", replayed.stdout, replayed.stderr)
            tables = [table.count("02:00:00:00:01:") for table in output.split("NAME ")[1:]]
            self.assertEqual((len(tables), tables[0]), (5, 5), output)
            self.assertIn(GBK_NAME, output)
        self.nothing_left()

    def test_once_says_what_is_wrong(self):
        with tempfile.TemporaryDirectory() as build:
            os.mkdir(build + "/bin")
            for program in os.listdir(BUILD + "/bin"):
                target = "/bin/false" if program == "ovani" else os.path.realpath(f"{BUILD}/bin/{program}")
                os.symlink(target, f"{build}/bin/{program}")
            run = self.start("--once", "--patience", "1", build=build)
            output = run.communicate(timeout=120)[0]
        self.assertEqual(run.returncode, 1, output)
        self.assertIn("expected, there is: no such host", output)
        self.assertIn("DHCPACK", output, "the end of the log")
        self.nothing_left()

    def test_interrupted_and_killed(self):
        for how, status in ((signal.SIGINT, 0), (signal.SIGTERM, 143), (signal.SIGKILL, -9)):
            with self.subTest(signal=how):
                run = self.start()
                while "192.168.1.10" not in run.stdout.readline():
                    self.assertIsNone(run.poll())
                if how == signal.SIGINT:
                    os.killpg(run.pid, how)  # as a terminal does
                else:
                    run.send_signal(how)
                run.communicate(timeout=60)
                self.assertEqual(run.returncode, status)
                self.nothing_left()

    def test_a_gateway_ends_with_its_owner(self):
        owner = subprocess.Popen(["sleep", "infinity"])
        gateway = Gateway.__new__(Gateway)
        gateway.state = self.state
        try:
            gateway("up", "--build", BUILD, "--owner", str(owner.pid))
            gateway("plug", "1", "device", "static", "192.168.1.10")
            self.assertIn("LAN1     device", gateway("status"))
        finally:
            owner.kill()
            owner.wait()
        self.nothing_left()
        self.assertEqual(gateway("status", check=False).returncode, 1)

    def test_a_wrong_command_line_is_refused_before_anything_is_done(self):
        for command in ("test.sh bogus", "test.sh release --x", "run.sh --patience abc", "run.sh --operator ../ct",
                        "run.sh --build /none", "run.sh x", "bench/run.sh --help", ".ci/run x",
                        "tools/arm-sysroot.sh --help", "tools/install-packages.sh x", "tools/gateway up --x",
                        "tools/gateway up --ageing x", "tools/gateway up --build /none", "tools/gateway bogus",
                        "tools/gateway plug 4 x static 999.1.1.1", "tools/gateway plug 5 x dhcp",
                        "tools/gateway plug ra0 x dhcp", "tools/gateway plug 4 x --mac 03:00:00:00:00:01 dhcp",
                        "tools/gateway plug 4 x --mac", "tools/gateway roam x eth0", "tools/gateway start x",
                        "tools/gateway logs daemon x"):
            done = subprocess.run(command.split(), cwd=ROOT, env=os.environ | {"OVANI_GATEWAY": self.state},
                                  executable=os.path.join(ROOT, command.split()[0]), capture_output=True, text=True)
            self.assertEqual((done.returncode, done.stdout, done.stderr.count("\n")), (2, "", 1), (command, done))
        self.nothing_left()

    def test_a_directory_of_somebody_else_is_left_alone(self):
        with tempfile.TemporaryDirectory() as directory:
            with open(directory + "/config", "w", encoding="ascii") as file:
                file.write("mine")
            for command in (["up", "--build", BUILD], ["down"]):
                done = subprocess.run([GATEWAY, "-s", directory, *command], capture_output=True, text=True)
                self.assertEqual(done.returncode, 1, done)
            self.assertEqual(os.listdir(directory), ["config"])
