"""What an installation puts where, as files, as a Debian package and under procd, and what shells are told."""

import glob
import os
import subprocess
import tempfile
import unittest

from gateway import BUILD, ROOT

COMPONENTS = ("daemon", "bus", "tools", "journal", "start", "man", "completions")
PROCD = os.path.join(ROOT, "packaging/openwrt/ovani/files/ovani.init")

# rc.common's functions, which tell what they are called with; NAME_OPTION in the environment configures.
RC_COMMON = """
config_load() { echo "config $*"; }
config_get() { eval "$1=\\${$2_$3:-\\$4}"; }
config_get_bool() { config_get "$@"; }
for said in open_instance set_param close_instance add_reload_trigger; do
    eval "procd_$said() { echo $said \\"\\$*\\"; }"
done
. "$0"
JOURNAL=$1
start_service
service_triggers
"""


def run(*command, **environment):
    return subprocess.run(command, check=True, text=True, stdout=subprocess.PIPE, cwd=BUILD,
                          env=os.environ | environment).stdout


def files_below(directory):
    return {os.path.relpath(os.path.join(where, name), directory)
            for where, _, names in os.walk(directory) for name in names}


class Installation(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory(prefix="ovani-test.")
        self.addCleanup(scratch.cleanup)
        self.directory = scratch.name

    def install(self, *arguments):
        root = tempfile.mkdtemp(dir=self.directory)
        run("cmake", "--install", BUILD, "--prefix", "/usr", *arguments, DESTDIR=root)
        return root

    def test_everything_belongs_to_one_component(self):
        everything = files_below(self.install())
        parts = {component: files_below(self.install("--component", component)) for component in COMPONENTS}
        self.assertEqual(sorted(everything), sorted(file for part in parts.values() for file in part))
        self.assertLessEqual({"usr/sbin/ovani", "usr/lib/ovani/brctl"}, parts["daemon"])
        programs = [file for file in everything if file.split("/")[1] in ("bin", "sbin")]
        self.assertEqual({os.path.basename(program) for program in programs},
                         {os.path.basename(page).rpartition(".")[0] for page in parts["man"]})

    def test_units_start_what_is_installed(self):
        root = self.install()
        units = glob.glob(root + "/usr/lib/systemd/system/*.service")
        self.assertIn("ovani.service", map(os.path.basename, units))
        for unit in units:
            with open(unit, encoding="utf-8") as text:
                [program] = [line.split("=")[1].split()[0] for line in text if line.startswith("ExecStart=")]
            self.assertTrue(os.access(root + program, os.X_OK), program)

    def test_pages_tell_of_every_command(self):
        with open(self.install("--component", "man") + "/usr/share/man/man1/ovanictl.1", encoding="utf-8") as file:
            page = file.read()
        told = run("bin/ovanictl", "--complete", "").split("\n")
        commands = [line.split("\t")[0] for line in told if line]
        self.assertIn("hosts", commands)
        for command in commands:
            self.assertIn(f".SS ovanictl {command} ", page)

    def test_debian_package(self):
        run("cpack", "-B", self.directory)
        [package] = glob.glob(self.directory + "/*.deb")
        run("dpkg-deb", "-R", package, self.directory + "/package")
        control = self.directory + "/package/DEBIAN/"
        self.assertEqual(files_below(self.directory + "/package") - {"DEBIAN/" + name for name in os.listdir(control)},
                         files_below(self.install()))
        with open(control + "conffiles", encoding="utf-8") as conffiles:
            self.assertEqual(conffiles.read(), "/etc/default/ovani\n")
        for script in ("postinst", "prerm", "postrm"):
            self.assertTrue(os.access(control + script, os.X_OK))

    def test_under_procd(self):
        def started(journal, **configuration):
            said = run("sh", "-c", RC_COMMON, PROCD, journal, **configuration)
            self.assertIn("config ovani\n", said)
            self.assertTrue(said.endswith("add_reload_trigger ovani\n"))
            instances = said.split("open_instance ")[1:]
            for instance in instances:
                self.assertIn("set_param respawn 3600 2 0\n", instance)
            return instances

        journal, daemon = started("/bin/true", daemon_log_level="debug", journal_directory="/mnt", journal_bytes="9")
        self.assertTrue(journal.startswith("journal\nset_param command /bin/true --directory /mnt --files 2 --bytes 9\n"))
        self.assertTrue(daemon.startswith("daemon\nset_param command /usr/sbin/ovani\n"))
        self.assertIn(" OVANI_LOG_LEVEL=debug\n", daemon)
        for journal, configuration in (("/bin/true", {"journal_enabled": "0"}), ("/nowhere", {})):
            [daemon] = started(journal, **configuration)
            self.assertIn(" OVANI_LOG_LEVEL=err\n", daemon)

    def test_bash_completes(self):
        script = os.path.join(ROOT, "packaging/completions/ovani.bash")
        for words, completed in (
                ("em", "emit"), ("emit arp ad", "add"), ("emit arp --h", "--help"), ("get --j", "--json"),
                ("get InternetGatewayDevice.LANDevice.1.Hos", "InternetGatewayDevice.LANDevice.1.Hosts."),
                ("set InternetGatewayDevice.DeviceInfo.X_QV_Carr", "InternetGatewayDevice.DeviceInfo.X_QV_Carrier"),
                ("get Nowhere.", ""), ("get InternetGatewayDevice.LANDevice.1. x", "")):
            said = run("bash", "-c", 'compopt() { :; }; . "$0"; COMP_WORDS=(ovanictl "$@"); COMP_CWORD=$#; '
                       '_ovani bin/ovanictl; echo "${COMPREPLY[@]}"', script, *words.split(" "),
                       OVANI_STORE=self.directory + "/none")
            self.assertEqual(said.strip(), completed, words)
        self.assertEqual(os.listdir(self.directory), []) # looking made no store


if __name__ == "__main__":
    unittest.main()
