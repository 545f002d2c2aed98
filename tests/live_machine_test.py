"""The machine as a host: what the package puts in place, on a copy of this machine's files that ends with the test."""
import os
import re
import signal
import sys
import unittest

from live_host import *

STATE = pathlib.Path("/var/lib/vswitchctl/host")
DEVICES = ("/dev/vswitch", "/krem/devices/char/zordriver/rtm")
UNIT = "/usr/lib/systemd/system/vshostd.service"
MEMBER, OTHER, GROUP = 65533, 65534, 65530
COMPONENTS = ("runtime", "vsctl", "host", "live", "machine")
NODES = ("null", "zero", "urandom", "fuse", "shm")

# A program that links the library: it prints the statuses of the driver, and of the store for a switch.
PROGRAM = """
import ctypes
library = ctypes.CDLL("libvswitchctl.so.1")
switches, identity = ctypes.c_void_p(), ctypes.create_string_buffer(64)
print(hex(library.VSZOR_GetSwitches(1, ctypes.byref(switches))), hex(library.DVSAliasToSwitchId(b"lab", identity)))
"""

FIND = PROGRAM.rpartition("print")[0] + """
raise SystemExit(library.DVSAliasToSwitchId(b"lab", identity) != 0)
"""


class Machine(LiveHost):
    """Its root is a copy of this machine's, in which the package's files are installed."""

    def setUp(self):
        super().setUp()
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="machine-"))
        self.addCleanup(shutil.rmtree, self.root, True)
        run("mount", "-t", "tmpfs", "none", self.root)
        self.addCleanup(run, "umount", "--lazy", self.root)
        for name in ("upper", "work", "whole"):
            (self.root / name).mkdir(mode=0o755)
        layers = f"lowerdir=/,upperdir={self.root}/upper,workdir={self.root}/work"
        self.root = self.root / "whole"
        done = run("mount", "-t", "overlay", "none", "-o", layers, self.root, check=False)
        if done.returncode:
            reason = f"no overlay of this file system: {done.stderr}"
            self.fail(reason) if os.environ.get("VSWITCHCTL_REQUIRE_LIVE") else self.skipTest(reason)
        self.addCleanup(run, "umount", "--lazy", self.root)
        for source in ("/proc", "/sys"):
            run("mount", "--rbind", source, self.inner(source))
        run("mount", "-t", "tmpfs", "-o", "mode=755", "none", self.inner("/dev"))
        for name in NODES:
            self.inner(f"/dev/{name}").mkdir() if name == "shm" else self.inner(f"/dev/{name}").touch()
            run("mount", "--bind", f"/dev/{name}", self.inner(f"/dev/{name}"))
        for component in COMPONENTS:
            run("cmake", "--install", BUILD, "--prefix", "/usr", "--component", component,
                env={**os.environ, "DESTDIR": self.root})
        self.inner("/etc/group").write_text(f"root:x:0:\nvswitchctl:x:{GROUP}:\n")
        shutil.rmtree(self.inner(STATE.parent), ignore_errors=True)
        # What the unit starts, with the rights that it leaves.
        unit = self.inner(UNIT).read_text()
        words = lambda key: " ".join(re.findall(f"^{key}=(.*)$", unit, re.M)).split()
        rights = ",".join(name.lower().replace("cap_", "+") for name in words("CapabilityBoundingSet"))
        self.started_by = ["setpriv", f"--bounding-set=-all,{rights}", "--no-new-privs", *words("ExecStart")]

    def tearDown(self):
        if self.daemon and self.daemon.poll() is None:
            self.inside("vshost", "stop", check=False)
        super().tearDown()

    def inner(self, path):
        return self.root / str(path).lstrip("/")

    def command(self, *words):
        return ["chroot", self.root, *words]

    def inside(self, *words, user=0, environment=(), **options):
        """Runs a command on the machine, with nothing in its environment that names a host."""
        groups = f"--groups={GROUP}" if user == MEMBER else "--clear-groups"
        as_user = ["setpriv", f"--reuid={user}", f"--regid={user}", groups] if user else []
        path = "PATH=/usr/sbin:/usr/bin:/sbin:/bin"
        return run(*self.command("env", "-i", path, "LANG=C.UTF-8", "VSCTL_STATE=/tmp/vsctl.%d" % user, *environment,
                                 *as_user, *words), **options)

    def start(self, *more):
        """Starts vshostd as the unit does, and waits until it says that it works."""
        socket_name = "/run/machine.notify"
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as ready:
            self.inner("/run").mkdir(exist_ok=True)
            ready.bind(str(self.inner(socket_name)))
            ready.settimeout(LONGEST_WAIT)
            self.daemon = subprocess.Popen(self.command(*self.started_by, *more), stderr=self.log,
                                           env={"PATH": os.environ["PATH"], "NOTIFY_SOCKET": socket_name})
            try:
                self.assertEqual(ready.recv(100), b"READY=1")
            except socket.timeout:
                self.fail("vshostd doesn't work: " + self.read_log())
            finally:
                os.unlink(self.inner(socket_name))

    def end(self):
        """Ends vshostd as a service manager does."""
        self.daemon.send_signal(signal.SIGTERM)
        self.assertEqual(self.daemon.wait(LONGEST_WAIT), 0, self.read_log())

    def stop(self):
        self.inside("vshost", "stop")
        self.assertEqual(self.daemon.wait(LONGEST_WAIT), 0, self.read_log())

    def refusal(self):
        done = run(*self.command(*self.started_by), check=False)
        self.assertNotEqual(done.returncode, 0)
        self.assertEqual(len(done.stderr.splitlines()), 1, done.stderr)
        return done.stderr

    def answers(self, **options):
        return self.inside("python3", "-c", PROGRAM, **options).stdout.split()

    def make_switch(self):
        self.inside("vsctl", "switch", "create", "lab", "--ports", "4")

    def connect(self):
        """Two namespaces on the switch, which reach each other."""
        ends = []
        for number, name in enumerate(("ma", "mb")):
            ends.append(Namespace(name, f"10.9.1.{number + 1}"))
            self.addCleanup(ends[-1].remove)
            self.inside("vshost", "plug", "lab", f"port{number}", ends[-1].interface)
        wait_until(lambda: ends[0].reaches(ends[1]), "an answer")
        return ends

    def links(self):
        return [os.readlink(self.inner(path)) for path in DEVICES if self.inner(path).is_symlink()]


class Use(Machine):
    def test_programs_are_on_the_machines_host_without_an_environment(self):
        self.start()
        self.assertEqual(self.links(), [f"{STATE}/dev/vswitch", f"{STATE}/dev/rtm"])
        self.make_switch()
        self.assertEqual(self.answers(), ["0x0", "0x0"])
        self.assertIn("lab", self.inside("/bin/tybel", "-e", "ls", "/net/portsets").stdout)
        self.inside("vsctl", "switch", "mtu", "lab", "1600")  # by way of the shell
        self.assertIn("1600", self.inside("vsctl", "switch", "mtu", "lab").stdout)
        report = json.loads(self.inside("vsctl", "doctor", "--json").stdout)["result"]
        self.assertIn(f"embedded, in {STATE}", [part["state"] for part in report])
        a, b = self.connect()
        self.inside("vsctl", "port", "vlan", "lab", "port0", "100")
        self.assertFalse(a.reaches(b))
        self.inside("vsctl", "port", "vlan", "lab", "port1", "100")
        wait_until(lambda: a.reaches(b), "an answer on the VLAN")
        self.assertEqual(self.inside("vshost", "check").stdout, "")

    def test_a_restart_goes_on_and_a_stop_takes_all_away(self):
        self.start()
        self.make_switch()
        a, b = self.connect()
        self.end()
        self.assertEqual((self.links(), self.inner("/krem").exists()), ([], False))
        self.assertTrue(a.reaches(b))
        self.assertEqual(self.answers()[1], "0x0")  # the store is there, and the driver is not
        self.assertNotEqual(self.answers()[0], "0x0")
        sender = subprocess.Popen(["nsenter", f"--net=/proc/{a.holder.pid}/ns/net", sys.executable, "-c", SEND,
                                   b.address, "400", "0.005", "5"], stdout=subprocess.PIPE, text=True)
        self.start()
        self.assertEqual(sender.communicate(timeout=LONGEST_WAIT)[0].strip(), "400")
        self.assertEqual(self.answers(), ["0x0", "0x0"])
        self.daemon.kill()  # and after a death that leaves the links
        self.daemon.wait()
        self.start()
        self.assertEqual(self.answers(), ["0x0", "0x0"])
        self.stop()
        self.assertEqual((self.links(), self.inner("/krem").exists()), ([], False))
        self.assertFalse(a.reaches(b))
        self.assertEqual(run("tc", "filter", "show", "dev", a.interface, "ingress").stdout, "")
        self.assertEqual(mounts_under(self.inner(STATE)), [])
        self.assertEqual(self.answers()[1], "0x0")

    def test_hosts_that_a_process_names_stay_apart(self):
        self.start()
        self.make_switch()
        preload = next(self.inner("/usr").glob("lib/**/vswitchctl-host/libvshost.so")).relative_to(self.root)
        absent = "0xbad0003"
        for what, words, environment, answers in (
                ("a throw-away host", ("vshost", "run", "--"), (), ["0x0", absent]),
                ("a host that is named", (), ("VSHOST_DIR=/tmp/elsewhere",), ["0x0", absent]),
                ("no host", (), ("VSHOST_DIR=",), ["0x0", absent]),
                ("a test that has not started one", (), (f"LD_PRELOAD=/{preload}",), ["0x0", absent])):
            with self.subTest(what):
                self.inner("/tmp/elsewhere").mkdir(exist_ok=True)
                done = self.inside(*words, "python3", "-c", PROGRAM, environment=environment)
                self.assertEqual(done.stdout.split(), answers)
        self.stop()
        shutil.rmtree(self.inner(STATE.parent))
        self.assertEqual(self.answers()[1], absent)  # on a machine whose host was never started
        self.assertFalse(self.inner(STATE).exists())


class Refusals(Machine):
    def test_another_platforms_names_are_left_alone(self):
        device = self.inner(DEVICES[0])
        device.touch()
        self.assertIn("/dev/vswitch belongs to another switch driver", self.refusal())
        self.assertTrue(device.is_file() and not device.is_symlink())
        self.assertFalse(self.inner("/krem").exists())
        self.assertEqual(mounts_under(self.inner(STATE)), [])
        device.unlink()
        self.inner("/etc/group").write_text("root:x:0:\n")
        self.assertIn("there is no group vswitchctl", self.refusal())
        self.assertEqual(self.links(), [])

    @unittest.skipUnless(shutil.which("systemd-analyze"), "no systemd")
    def test_the_unit_is_sound(self):
        done = self.inside("systemd-analyze", "verify", "--man=no", UNIT)
        self.assertEqual((done.stdout, [line for line in done.stderr.splitlines() if "vshostd" in line]), ("", []))

    def test_only_an_installation_for_it_serves_the_machine(self):
        done = run(VSHOSTD, "--machine", check=False)
        self.assertEqual(done.returncode, 1)
        self.assertIn("install the package vswitchctl-live", done.stderr)
        for words in ((), ("--machine", "--state", "/tmp")):
            self.assertEqual(run(VSHOSTD, *words, check=False).returncode, 2)


class Rights(Machine):
    def test_the_group_may_do_what_the_table_says(self):
        self.start()
        self.make_switch()
        self.connect()
        ask = lambda *words: ("python3", "-c", ASK, STATE, *words)
        opened = ("python3", "-c", "import os, sys; [os.open(path, os.O_RDWR) for path in sys.argv[1:]]", *DEVICES)
        pins = next(self.inner(STATE).glob("bpf/host-v*")).relative_to(self.root)
        probes = {
            "open `/dev/vswitch` and the RTM device, send requests": opened,
            "read the store": ("vsctl", "port", "list", "lab"),
            "write to the store": ("vsctl", "port", "vlan", "lab", "port0", "7"),
            "ask vshostd for the state of a link": ask("link", "vma"),
            "have vshostd publish a change": ask("publish"),
            "make, remove or replace a file in the directory": ("sh", "-c", f"rm {STATE}/use.lock; touch {STATE}/new"),
            "plug and unplug interfaces, add and remove NICs": ask("unplug", "vma"),
            "open the pins in `bpf/`": ("ls", f"/{pins}"),
            "stop vshostd": ("vshost", "stop"),
            "read the store after `vshost stop`": ("python3", "-c", FIND),
        }
        documented = table("| what, on the machine's own host | root | group | others |")
        self.assertEqual(list(documented), list(probes))
        stopped = list(probes)[-1]
        for user, column in ((OTHER, 2), (MEMBER, 1), (0, 0)):
            for what, probe in probes.items():
                if what == stopped:
                    continue
                with self.subTest(what, user=user):
                    done = self.inside(*probe, user=user, check=False)
                    self.assertEqual("yes" if done.returncode == 0 else "no", documented[what][column],
                                     done.stdout + done.stderr)
        wait_until(lambda: self.daemon.poll() is not None, "its end")
        for user, column in ((OTHER, 2), (MEMBER, 1), (0, 0)):
            done = self.inside(*probes[stopped], user=user, check=False)
            self.assertEqual("yes" if done.returncode == 0 else "no", documented[stopped][column], (user, done))

    def test_a_user_outside_the_group_is_told(self):
        self.start()
        said = self.inside("vsctl", "switch", "list", user=OTHER, check=False).stderr
        self.assertIn("it is for members of the group vswitchctl", said)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:])
