"""Shared by the tests of vsctl: an embedded host for each test, and the command on it.

Usage of a test: vsctl_..._test.py BUILD_DIRECTORY SOURCE_DIRECTORY [unittest arguments]
"""
import ctypes
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

import jsonschema

BUILD, SOURCE = (pathlib.Path(path).resolve() for path in sys.argv[1:3])
VSCTL = str(BUILD / "vsctl")
HOST = ctypes.CDLL(str(BUILD / "platform/libvshost.so"))
HOST.vshost_fingerprint.restype = ctypes.c_uint64
HOST.vshost_error.restype = ctypes.c_char_p
HOST.vshost_call_count.restype = ctypes.c_size_t
STORE, SHELL, DRIVER = 1, 2, 3
IO_ERROR = 0x0BAD0008


def schema(*words):
    return json.loads(subprocess.run([VSCTL, "schema", *words], capture_output=True, check=True).stdout)


PLAN_SCHEMA, OUTPUT_SCHEMA = schema(), schema("--output")
OUTPUT = jsonschema.Draft202012Validator(OUTPUT_SCHEMA)
WRITES = {"DVSZOR_GlobalPropSet", "DVSZOR_GlobalPropClear", "DVSZOR_HostPropSet", "DVSZOR_HostPropClear",
          "DVSZOR_PortDataSet", "DVSZOR_PortDataClear", "DVSZOR_PortAdd", "DVSZOR_PortRemove", "DVSZOR_SwitchAdd",
          "DVSZOR_SwitchRemove", "DVSZOR_SwitchAssociate", "DVSZOR_SwitchDissociate", "create", "destroy", "set"}
# A switch with something of each kind.
LAB = """
[switches.lab]
id = "lab"
uplinks = ["uplink0"]
mtu = 9000
multicast = "snooping"
mac-learning = { aging = 300 }
pvlan = [{ primary = 7, secondary = 8, type = "isolated" }, "0102030405060708"]
mirror = [{ session = "s1", to = ["uplink0"] }, { session = "s2", settings = "%s" }]
teaming = { algorithm = "l4", active = ["uplink0"] }
ls-teaming = [{ name = "gold", standby = ["uplink0"], notify = true }]
[switches.lab.ports."port0..port1"]
vlan = { id = 100, priority = 3, ranges = ["7-7"] }
security = { lock-address = true, static-only = true }
eth-filter = "%s"
mirror = [{ session = "a", from = ["port1"], received-by = ["port0", "#7"] }]
[switches.lab.ports.uplink0]
override = "east"
""" % ("aB" * 184, "aB" * 200)
SANITIZED = b"__asan_init" in pathlib.Path(VSCTL).read_bytes()
ran = set()


class Call(ctypes.Structure):
    _fields_ = [("kind", ctypes.c_uint32), ("outcome", ctypes.c_uint32), ("length", ctypes.c_uint32),
                ("flags", ctypes.c_uint32), ("process", ctypes.c_int32), ("operation", ctypes.c_char * 36),
                ("text", ctypes.c_char * 512), ("input", ctypes.c_ubyte * 256)]


def calls():
    """Operation and text of each recorded call."""
    found = []
    for index in range(HOST.vshost_call_count()):
        call = Call()
        HOST.vshost_call(index, ctypes.byref(call))
        found.append((call.operation.decode(), call.text.decode()))
    return found


def recorded():
    return [operation for operation, _ in calls()]


def writes():
    """The recorded calls that change something."""
    return [call for call in recorded() if call in WRITES or call.isdigit() and int(call) > 8192]


def signalled_at(nth, number, *words, stdin=None):
    """Runs vsctl, which gets a signal before its nth change of a file."""
    start = 'export LD_PRELOAD="$0:$LD_PRELOAD" VSCTL_TEST_KILL_AT="$1" VSCTL_TEST_SIGNAL="$2"; shift 2; exec "$@"'
    command = ["sh", "-c", start, BUILD / "tests/libkill_at.so", str(nth), str(int(number)), VSCTL, *words]
    return subprocess.run(command, input=stdin, capture_output=True, text=True, timeout=60)


def killed_at(nth, *words, stdin=None):
    """Kills vsctl before its nth change of a file; false when it makes fewer changes."""
    return signalled_at(nth, signal.SIGKILL, *words, stdin=stdin).returncode == -signal.SIGKILL


class OnHost(unittest.TestCase):
    """Each test has its own host, in its own directory."""

    def setUp(self):
        self.directory = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.directory, ignore_errors=True)
        self.assertEqual(HOST.vshost_start(str(self.directory / "host").encode(), 0), 0, HOST.vshost_error())
        self.addCleanup(HOST.vshost_stop)

    def environment(self, **more):
        """The environment of the host, which os.environ does not have, and more variables."""
        host = subprocess.run(["env", "-0"], capture_output=True, text=True).stdout
        return dict(line.split("=", 1) for line in host.split("\0") if line) | more

    def process(self, *words, stdin=None, **options):
        return subprocess.run([VSCTL, *words], input=stdin, capture_output=True, text=True, timeout=120, **options)

    def wait_until(self, condition, process=None):
        """Waits for a condition that must come true, while the process runs if one is given."""
        end = time.monotonic() + 300
        while not condition():
            self.assertTrue(process is None or process.poll() is None, "the process ended early")
            self.assertLess(time.monotonic(), end, "waited in vain")
            time.sleep(0.01)

    def run_vsctl(self, *words, code=0, stdin=None):
        """Standard output, or the error: a failure prints one line and no output."""
        done = self.process(*words, stdin=stdin)
        self.assertEqual(done.returncode, code, f"{words}: {done.stdout}{done.stderr}")
        if code not in (0, 10):
            self.assertEqual(done.stdout, "", words)
            self.assertRegex(done.stderr, r"\Avsctl: [^\n]+\n\Z")
            return done.stderr
        self.assertEqual(done.stderr, "", words)
        return done.stdout

    def refused(self, words, code, *reasons, stdin=None):
        """The error contains the reasons, and nothing was written."""
        with self.subTest(words=[str(word)[:80] for word in words], stdin=(stdin or "")[:200]):
            HOST.vshost_record(1)
            error = self.run_vsctl(*words, code=code, stdin=stdin)
            for reason in reasons:
                self.assertIn(reason, error)
            self.assertEqual(writes(), [])

    def rows(self, *words, code=0, stdin=None):
        answer = json.loads(self.run_vsctl(*words, "--json", code=code, stdin=stdin))
        OUTPUT.validate(answer)
        ran.add(answer["command"])
        return answer["result"]

    def write(self, name, text):
        path = self.directory / name
        path.write_text(text)
        return str(path)

    def create(self):
        self.rows("switch", "create", "lab", "--uplinks", "2", "--ports", "4")

    def copied(self):
        """A copy of the host. Another process makes it: to close a file of a database ends all locks on it."""
        copy = self.directory / "copy"
        shutil.rmtree(copy, ignore_errors=True)
        subprocess.run(["cp", "-r", self.directory / "host", copy], check=True)
        return copy

    def restart(self, copy):
        """The host is what it was when it was copied."""
        HOST.vshost_stop()
        shutil.rmtree(self.directory / "host")
        shutil.copytree(copy, self.directory / "host")
        self.assertEqual(HOST.vshost_start(str(self.directory / "host").encode(), 0), 0)

    def exported(self):
        """The whole configuration, except for random ids."""
        switches = {}
        for row in self.rows("switch", "list"):
            name = row["switch"]
            self.assertIsNotNone(name, row)
            ports = [p for p in ("port0", "port1", "port2", "port3", "uplink0", "uplink1")
                     if self.process("port", "number", name, p).returncode == 0]
            words = name + ("/" + ",".join(ports) if ports else "")
            switches.update(json.loads(self.run_vsctl("export", words, "--json"))["switches"])
        return switches


def main():
    unittest.main(argv=sys.argv[:1] + sys.argv[3:])
