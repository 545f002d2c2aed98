"""The rights of vshostd, and who may do what on a live host: every line of the table in SECURITY.md."""
import os
import random
import struct
import sys
import time
import unittest

from live_host import *

CAPABILITIES = {"CAP_CHOWN": 0, "CAP_DAC_OVERRIDE": 1, "CAP_NET_ADMIN": 12, "CAP_SYS_PTRACE": 19, "CAP_PERFMON": 38,
                "CAP_BPF": 39}
OF_DAEMON = ("CAP_NET_ADMIN", "CAP_SYS_PTRACE", "CAP_PERFMON", "CAP_BPF")
OWNER, OTHER = 65533, 65534
REQUESTS = 100000 if os.environ.get("VSWITCHCTL_LONG") else 4000

OPEN = "import os, sys; [os.open(path, os.O_RDWR) for path in sys.argv[1:]]"


class Rights(PluggedHost):
    def setUp(self):
        super().setUp()
        self.place = tempfile.mkdtemp()
        os.chmod(self.place, 0o755)
        run("mount", "--bind", BUILD, self.place)
        self.addCleanup(os.rmdir, self.place)
        for user in (0, OWNER, OTHER):
            os.mkdir(f"{self.place}.{user}")
            os.chown(f"{self.place}.{user}", user, user)
            self.addCleanup(shutil.rmtree, f"{self.place}.{user}")
        self.addCleanup(run, "umount", "--lazy", self.place)

    def give_away(self):
        """The directory belongs to a user from now on."""
        self.stop()
        for path in (self.directory, *self.directory.rglob("*")):
            os.chown(path, OWNER, OWNER)
            path.chmod(0o755 if path.is_dir() else 0o644)
        self.start()

    def may(self, user, *command):
        words = [str(word).replace(str(BUILD), self.place) for word in command]
        done = run("setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups", *words, check=False,
                   env={**os.environ, "LD_LIBRARY_PATH": self.place, "VSCTL_STATE": f"{self.place}.{user}"})
        self.said = done.stdout + done.stderr
        return done.returncode == 0

    def capabilities(self):
        status = pathlib.Path(f"/proc/{self.worker()}/status").read_text()
        value = lambda name: next(line.split()[1] for line in status.splitlines() if line.startswith(name + ":"))
        masks = [int(value(name), 16) for name in ("CapEff", "CapPrm", "CapBnd", "CapInh", "CapAmb")]
        names = lambda mask: {name for name, bit in CAPABILITIES.items() if mask >> bit & 1}
        for mask in masks:
            self.assertEqual(mask & ~sum(1 << bit for bit in CAPABILITIES.values()), 0)
        return [names(mask) for mask in masks], value("NoNewPrivs")

    def test_the_daemon_has_what_it_needs_and_no_more(self):
        self.assertEqual(self.capabilities(), ([set(OF_DAEMON)] * 3 + [set()] * 2, "1"))
        self.kill_worker()
        request(self.device, GET_SWITCHES, struct.pack("=I", 1))  # the next daemon answers
        self.assertEqual(self.capabilities()[0], [set(OF_DAEMON)] * 3 + [set()] * 2)
        documented = table("| capability | for |")
        self.assertEqual(set(",".join(documented).replace("`", "").replace(" ", "").split(",")), set(CAPABILITIES))
        self.give_away()
        self.assertEqual(self.capabilities()[0][:3], [set(CAPABILITIES)] * 3)

    def test_each_missing_right_is_named(self):
        self.stop()
        for name in (*OF_DAEMON, "CAP_SYS_ADMIN", "CAP_SETPCAP"):
            without = name.removeprefix("CAP_").lower()
            done = run("setpriv", f"--bounding-set=-{without}", VSHOSTD, "--state", self.directory, check=False)
            self.assertEqual(done.returncode, 1)
            self.assertEqual(done.stderr, f"vshostd: a live host needs the capability {name}; start vshostd as root "
                                          "without taking it away\n")

    def test_everybody_may_do_what_the_table_says(self):
        self.give_away()
        a = self.namespace("a", "10.9.0.1")
        self.plug("1", a)
        ask = lambda *words: (sys.executable, "-c", ASK, self.directory, *words)
        devices = [self.directory / "dev" / name for name in ("vswitch", "rtm")]
        vsctl = lambda *words: (VSHOST, "run", "--state", self.directory, "--", VSCTL, *words)
        probes = {
            "open the devices `dev/vswitch` and `dev/rtm`, send requests": (sys.executable, "-c", OPEN, *devices),
            "read the store": vsctl("port", "list", "one"),
            "write to the store": vsctl("port", "vlan", "one", "1", "7"),
            "ask vshostd for the state of a link": ask("link", "va"),
            "have vshostd publish a change": ask("publish"),
            "plug and unplug interfaces, add and remove NICs": ask("unplug", "va"),
            "open the pins in `bpf/`": ("ls", next(self.directory.glob("bpf/host-v*"))),
            "stop vshostd": (VSHOST, "stop", "--state", self.directory),
        }
        documented = table("| what | root | owner | others |")
        self.assertEqual(list(documented), list(probes))
        if not self.may(OTHER, sys.executable, "-c", ""):  # it is where others don't reach it
            probes = {what: ["/usr/bin/python3" if word == sys.executable else word for word in probe]
                      for what, probe in probes.items()}
        for user, column in ((OTHER, 2), (OWNER, 1), (0, 0)):
            for what, probe in probes.items():
                with self.subTest(what, user=user):
                    self.assertEqual("yes" if self.may(user, *probe) else "no", documented[what][column], self.said)
        wait_until(lambda: self.daemon.poll() is not None, "its end")

    def test_no_request_harms_the_daemon(self):
        """Requests as the fuzzer's in process: any command, any lengths, any record, bad addresses."""
        seed = time.time_ns()
        chance = random.Random(seed)
        worker, log = self.worker(), self.read_log()
        corpus = [path.read_bytes() for path in (SOURCE / "tests/fuzz/corpus/requests").iterdir()]
        names = [b"one", b"two", self.vsctl("--json", "switch", "show", "one").encode()[:60]]
        devices = [os.open(self.directory / "dev" / name, os.O_RDWR) for name in ("vswitch", "rtm")]
        output = ctypes.create_string_buffer(4096 + 64)
        for count in range(REQUESTS):
            record = bytearray(chance.choice(corpus) if chance.random() < 0.2 else chance.randbytes(chance.choice(
                (0, 4, 36, 212, 212, 212, 4000))))
            if chance.random() < 0.7:
                name = chance.choice(names) + b"\0"
                record[:len(name)] = name[:len(record)] if len(record) < len(name) else name
            if chance.random() < 0.3 and len(record) == 212:
                record[128:176] = chance.choice((b"1", b"2", b"up")).ljust(48, b"\0")
            room = chance.choice((0, 8, 36, 80, 4096, 0xFFFFFFFF if chance.random() < 0.05 else 16))
            given = ctypes.create_string_buffer(bytes(record), max(len(record), 1))
            ctypes.memset(output, 0xA5, len(output))
            header = struct.pack("=IIQQ", len(record) if chance.random() < 0.97 else chance.getrandbits(32), room,
                                 ctypes.addressof(given) if chance.random() < 0.95 else 8,
                                 ctypes.addressof(output) if chance.random() < 0.95 else 8)
            buffer = ctypes.create_string_buffer(header, len(header))
            number = chance.choice((4097, 8193)) + chance.randrange(32)
            device = devices[chance.random() < 0.1]
            LIBC.ioctl(device, ctypes.c_ulong(number), buffer if chance.random() < 0.98 else ctypes.c_void_p(16))
            if room <= 4096:
                self.assertEqual(output.raw[room:], b"\xA5" * (len(output) - room), (seed, count, number))
        self.assertEqual((self.worker(), self.read_log()), (worker, log), seed)
        self.assertIsInstance(request(self.device, GET_SWITCHES, struct.pack("=I", 1)), bytes)
        self.assertEqual(run(VSHOST, "check", "--state", self.directory).stdout, "", seed)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:])
