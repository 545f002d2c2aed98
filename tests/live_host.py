"""What the tests of the live host share: namespaces of the process's own, vshostd, and driver requests.

The tests need root, bpf and FUSE. Elsewhere they are skipped, unless VSWITCHCTL_REQUIRE_LIVE says that the machine
is able.
Usage of a test: live_..._test.py BUILD_DIRECTORY SOURCE_DIRECTORY [unittest arguments]
"""
import ctypes
import json
import os
import pathlib
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest

BUILD, SOURCE = (pathlib.Path(path).resolve() for path in sys.argv[1:3])
PLATFORM = BUILD / "platform"
VSHOST, VSHOSTD, VSCTL = str(PLATFORM / "vshost"), str(PLATFORM / "vshostd"), str(BUILD / "vsctl")
LIBC = ctypes.CDLL(None, use_errno=True)
CLONE_NEWNS, CLONE_NEWNET, MS_REC, MS_PRIVATE = 0x20000, 0x40000000, 0x4000, 1 << 18
LONGEST_WAIT = 30
GET_SWITCHES, GET_INFO, GET_UPLINKS, GET_LEARNING_PROPS, SET_LEARNING_PROPS = 4126, 4111, 4106, 4120, 8197
INPUT_SIZE = 212


# Answers every packet, in a network namespace.
ECHO = """
import socket
server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
server.bind(("", 7))
while True:
    server.sendto(*server.recvfrom(2048))
"""
# Sends numbered packets; prints how many of them were answered.
SEND = """
import socket, sys, time
address, count, pause, patience = sys.argv[1], int(sys.argv[2]), float(sys.argv[3]), float(sys.argv[4])
client = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
client.setblocking(False)
answered = set()
def receive():
    try:
        while True:
            answered.add(client.recv(2048))
    except OSError:
        pass
for number in range(count):
    try:
        client.sendto(str(number).encode(), (address, 7))
    except OSError:
        pass
    time.sleep(pause)
    receive()
end = time.monotonic() + patience
while len(answered) < count and time.monotonic() < end:
    time.sleep(0.01)
    receive()
print(len(answered))
"""

# Asks vshostd; exit code 0 when it doesn't refuse.
ASK = """
import socket, sys
with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as vshostd:
    vshostd.connect(sys.argv[1] + "/vshostd.socket")
    vshostd.send(b"".join(word.encode() + bytes(1) for word in sys.argv[2:]))
    text, error = vshostd.recv(4096).split(bytes(1))[:2]
    sys.exit(int(error))
"""


def find_obstacle():
    """Why this machine can't run the tests; empty when it can."""
    if os.geteuid() != 0:
        return "no root"
    if LIBC.unshare(CLONE_NEWNS | CLONE_NEWNET) != 0 or LIBC.mount(None, b"/", None, MS_REC | MS_PRIVATE, None) != 0:
        return "namespaces: " + os.strerror(ctypes.get_errno())
    try:
        os.close(os.open("/dev/fuse", os.O_RDWR))
    except OSError as error:
        return f"FUSE: {error.strerror}"
    if os.readlink("/proc/self/ns/pid") != "pid:[4026531836]":
        return "an inner process namespace"
    return ""


OBSTACLE = find_obstacle()


def wait_until(holds, what, seconds=LONGEST_WAIT):
    end = time.monotonic() + seconds
    while not holds():
        if time.monotonic() > end:
            raise AssertionError(f"in {seconds} s not seen: {what}")
        time.sleep(0.01)


def run(*command, check=True, timeout=60, **options):
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True, timeout=timeout, **options)
    if check and done.returncode != 0:
        raise AssertionError(f"{command} ended with {done.returncode}: {done.stdout}{done.stderr}")
    return done


def as_nobody(*command, **options):
    """Runs a command as a user without any right, who can read the build wherever it is."""
    with tempfile.TemporaryDirectory() as place:
        os.chmod(place, 0o755)
        run("mount", "--bind", BUILD, place)
        try:
            words = [str(word).replace(str(BUILD), place) for word in command]
            return run("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", *words, **options)
        finally:
            run("umount", "--lazy", place)


def mounts_under(directory):
    lines = pathlib.Path("/proc/self/mounts").read_text().splitlines()
    return [line for line in lines if line.split()[1].startswith(str(directory))]


def request(path, number, data=b"", room=4096):
    """What the driver answers to a command: bytes, or an errno value. The device is opened as any file."""
    given, answer = ctypes.create_string_buffer(data, max(len(data), 1)), ctypes.create_string_buffer(room)
    header = struct.pack("=IIQQ", len(data), room, ctypes.addressof(given), ctypes.addressof(answer))
    buffer = ctypes.create_string_buffer(header, len(header))
    device = os.open(path, os.O_RDWR)
    try:
        if LIBC.ioctl(device, ctypes.c_ulong(number), buffer) != 0:
            return ctypes.get_errno()
    finally:
        os.close(device)
    return answer.raw


def portset_input(name):
    return name.encode().ljust(INPUT_SIZE, b"\0")


def table(heading):
    """The rows of the table under its first line of SECURITY.md, by their first cell."""
    lines = (SOURCE / "SECURITY.md").read_text().splitlines()
    rows = {}
    for line in lines[lines.index(heading) + 2:]:
        if not line.startswith("|"):
            return rows
        first, *others = (cell.strip() for cell in line.strip("|").split("|"))
        rows[first] = others
    return rows


class LiveHost(unittest.TestCase):
    """A directory and, once it is started, a vshostd of each test's own."""

    OPTIONS = ()  # of vshostd

    def setUp(self):
        if OBSTACLE and os.environ.get("VSWITCHCTL_REQUIRE_LIVE"):
            self.fail(f"the machine can't run live tests: {OBSTACLE}")
        if OBSTACLE:
            self.skipTest(f"needs root, bpf and FUSE ({OBSTACLE})")
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="live-host-"))
        self.device = str(self.directory / "dev/vswitch")
        self.log = open(self.directory.with_suffix(".log"), "w+")
        self.daemon = None

    def tearDown(self):
        if self.daemon and self.daemon.poll() is None:
            run(VSHOST, "stop", "--state", self.directory, check=False)
            self.daemon.wait(LONGEST_WAIT)
        self.log.close()
        os.unlink(self.log.name)
        shutil.rmtree(self.directory, ignore_errors=True)

    def start(self):
        """Starts vshostd, and waits until it says that it works."""
        name = f"{self.directory}.notify"
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as ready:
            ready.bind(name)
            ready.settimeout(LONGEST_WAIT)
            self.daemon = subprocess.Popen([VSHOSTD, "--state", self.directory, *self.OPTIONS], stderr=self.log,
                                           env={**os.environ, "NOTIFY_SOCKET": name})
            try:
                self.assertEqual(ready.recv(100), b"READY=1")
            except socket.timeout:
                self.fail("vshostd doesn't work: " + self.read_log())
            finally:
                os.unlink(name)

    def stop(self):
        run(VSHOST, "stop", "--state", self.directory)
        self.assertEqual(self.daemon.wait(LONGEST_WAIT), 0, self.read_log())

    def read_log(self):
        return pathlib.Path(self.log.name).read_text()

    def worker(self):
        """The process that answers; 0 while there is none."""
        children = pathlib.Path(f"/proc/{self.daemon.pid}/task/{self.daemon.pid}/children").read_text().split()
        return int(children[0]) if children else 0

    def kill_worker(self):
        """Kills the answering process at whatever it does, and waits for the next one."""
        wait_until(self.worker, "a daemon")
        killed = self.worker()
        os.kill(killed, signal.SIGKILL)
        wait_until(lambda: self.worker() not in (0, killed), "the next daemon")

    def kill_supervisor(self):
        worker = self.worker()
        self.daemon.kill()
        self.daemon.wait()
        wait_until(lambda: not pathlib.Path(f"/proc/{worker}").exists(), "the end of the daemon")

    def on_host(self, *command, **options):
        return run(VSHOST, "run", "--state", self.directory, "--", *command, **options)

    def vsctl(self, *arguments):
        return self.on_host(VSCTL, *arguments).stdout

    def rows(self, *arguments):
        return json.loads(self.vsctl(*arguments, "--json"))["result"]

    def row(self, *arguments):
        return self.rows(*arguments)[0]


class Caller(threading.Thread):
    """Sends one request after another until it is told to end, and keeps what was refused."""

    def __init__(self, device, number, data, room=4096):
        super().__init__(daemon=True)
        self.device, self.number, self.data, self.room = device, number, data, room
        self.ends = threading.Event()
        self.answered, self.refused = 0, []

    def run(self):
        while not self.ends.is_set():
            answer = request(self.device, self.number, self.data, self.room)
            if isinstance(answer, int):
                self.refused.append(os.strerror(answer))
            else:
                self.answered += 1


ETH_P_TEST = 0x88B5  # for experiments
BROADCAST = "ff:ff:ff:ff:ff:ff"


def frame(destination, source, text):
    """A frame that the machine's own stacks don't send."""
    bytes_of = lambda address: bytes.fromhex(address.replace(":", ""))
    return (bytes_of(destination) + bytes_of(source) + struct.pack("!H", ETH_P_TEST) + text.encode()).ljust(60, b"\0")


def text_of(wire):
    """What the next frame says."""
    return wire.recv(2000)[14:].rstrip(b"\0").decode()


class Namespace:
    """A network namespace with one end of a veth pair; the other end is in the test's own."""

    def __init__(self, name, address):
        self.name, self.address = name, address
        # Of the interface outside; the one inside is eth0.
        self.interface = f"v{name}"
        self.holder = subprocess.Popen(["unshare", "--net", sys.executable, "-c", ECHO])
        own = os.readlink("/proc/self/ns/net")
        wait_until(lambda: os.readlink(f"/proc/{self.holder.pid}/ns/net") != own, "a network namespace")
        self.connect()

    def connect(self, index=None):
        number = ("index", index) if index else ()
        run("ip", "link", "add", self.interface, *number, "type", "veth", "peer", "name", "eth0", "netns",
            self.holder.pid)
        run("sysctl", "-qw", f"net.ipv6.conf.{self.interface}.disable_ipv6=1", check=False)
        run("ip", "link", "set", self.interface, "up")
        self.run("sysctl", "-qw", "net.ipv6.conf.eth0.disable_ipv6=1", check=False)  # it sends of its own accord
        # What joins a group says so once, and not again up to a second later.
        self.run("sysctl", "-qw", "net.ipv4.igmp_qrv=1", "net.ipv6.mld_qrv=1", check=False)
        self.run("ip", "address", "add", f"{self.address}/24", "dev", "eth0")
        self.run("ip", "link", "set", "eth0", "up")

    def run(self, *command, **options):
        return run("nsenter", f"--net=/proc/{self.holder.pid}/ns/net", *command, **options)

    def socket(self, *arguments):
        """A socket in the namespace."""
        with open("/proc/self/ns/net") as own, open(f"/proc/{self.holder.pid}/ns/net") as inside:
            assert LIBC.setns(inside.fileno(), CLONE_NEWNET) == 0
            try:
                return socket.socket(*arguments)
            finally:
                assert LIBC.setns(own.fileno(), CLONE_NEWNET) == 0

    def wire(self):
        """A socket that sends and receives whole frames."""
        wire = self.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
        wire.bind(("eth0", ETH_P_TEST))
        wire.settimeout(LONGEST_WAIT)
        return wire

    def reaches(self, other):
        return int(self.run(sys.executable, "-c", SEND, other.address, 5, 0.05, 0.5).stdout) > 0

    def remove(self):
        self.holder.kill()
        self.holder.wait()
        run("ip", "link", "del", self.interface, check=False)


class PluggedHost(LiveHost):
    def setUp(self):
        super().setUp()
        run("ip", "link", "set", "lo", "up")
        self.start()
        self.vsctl("switch", "create", "one", "--ports", "16")
        for port in ("1", "2", "3"):
            self.vsctl("port", "add", "one", port)
        self.namespaces = []

    def tearDown(self):
        for namespace in self.namespaces:
            namespace.remove()
        super().tearDown()

    def namespace(self, name, address):
        self.namespaces.append(Namespace(name, address))
        return self.namespaces[-1]

    def plug(self, port, namespace, *options):
        run(VSHOST, "plug", "--state", self.directory, "one", port, namespace.interface, *options)

    def two(self):
        a, b = self.namespace("a", "10.9.0.1"), self.namespace("b", "10.9.0.2")
        self.plug("1", a)
        self.plug("2", b)
        return a, b

    def filters(self, interface):
        return run("tc", "filter", "show", "dev", interface, "ingress", check=False).stdout

    def refusal(self, *arguments):
        done = run(VSHOST, *arguments[:1], "--state", self.directory, *arguments[1:], check=False)
        self.assertNotEqual(done.returncode, 0)
        self.assertEqual(len(done.stderr.splitlines()), 1, done.stderr)
        return done.stderr
