#!/usr/bin/env python3
"""vsctl at a terminal: watch, completion in real shells, and streams that break."""
import json
import re
import signal
import subprocess
import time

from vsctl_host import BUILD, OUTPUT, VSCTL, OnHost, main

class Terminal(OnHost):
    def test_watch(self):
        self.create()
        watch = subprocess.Popen([VSCTL, "watch", "--interval", "50ms", "port", "vlan", "lab", "port0", "--json"],
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.assertIn("result", json.loads(watch.stdout.readline()))
        self.run_vsctl("port", "vlan", "lab", "port0", "5")
        change = json.loads(watch.stdout.readline())
        OUTPUT.validate(change)
        self.assertEqual([(c["field"], c["before"], c["after"]) for c in change["changes"]], [("id", 0, 5)])
        watch.send_signal(signal.SIGINT)
        self.assertEqual((watch.wait(10), watch.stderr.read()), (0, ""))
        closed = subprocess.run(["bash", "-c",
                                 f"set -o pipefail; timeout 10 {VSCTL} watch --interval 50ms switch list | head -1"],
                                capture_output=True, text=True)
        self.assertEqual((closed.returncode, closed.stderr), (0, ""))
        self.run_vsctl("watch", "switch", "destroy", "lab", code=2)

    def test_watch_of_rows_that_come_and_go(self):
        self.create()
        for leading in (["--json", "watch"], ["watch", "--json"]):
            watch = subprocess.Popen([VSCTL, *leading, "--interval", "20ms", "--times", "3000", "switch", "list"],
                                     stdout=subprocess.PIPE, text=True)
            self.assertEqual(len(json.loads(watch.stdout.readline())["result"]), 1)
            added = {}

            def follow(until):
                while not until():  # it may read while the change is half made
                    answer = json.loads(watch.stdout.readline())
                    OUTPUT.validate(answer)
                    for change in answer["changes"]:
                        self.assertNotEqual(change["before"], change["after"])
                        added[change["object"], change["field"]] = change["after"]
            self.run_vsctl("switch", "create", "new", "--id", "i")
            follow(lambda: added.get(("new new", "id")) == "i")
            self.assertEqual(added["new new", "switch"], "new")
            self.run_vsctl("switch", "destroy", "new")
            follow(lambda: set(added.values()) == {None})
            watch.terminate()
            self.assertEqual(watch.wait(10), 0)
            watch.stdout.close()
        file = self.write("plan", "[switches.lab]\nmtu = 4000\nmulticast = 'snooping'\n")
        watch = subprocess.Popen([VSCTL, "watch", "--interval", "20ms", "plan", file], stdout=subprocess.PIPE,
                                 text=True)
        self.addCleanup(watch.kill)
        lines = [watch.stdout.readline() for _ in range(4)]
        self.assertRegex(lines[0], r"^\d\d:\d\d:\d\d plan$")
        self.run_vsctl("switch", "mtu", "lab", "4000")
        self.assertRegex(watch.stdout.readline(), r"^\S+ lab mtu \S+: ")
        watch.stdout.close()
        self.assertEqual(watch.wait(10), 0)
        for words, code in ((["export", "lab"], 2), (["help"], 2), (["mac", "props"], 2),
                            (["port", "vlan", "lab", "port0", "5"], 2),
                            (["watch", "switch", "list"], 2), (["switch", "show", "none"], 3), ([], 2)):
            self.refused(["watch", "--times", "1", *words], code)
        self.assertEqual(len(self.run_vsctl("watch", "--times", "3", "--interval", "1ms", "switch",
                                            "list").splitlines()), 3)

    def test_streams_that_break(self):
        self.create()
        self.run_vsctl("port", "add", "lab", "p0..p2999")
        shell = lambda line: subprocess.run(["bash", "-c", f"set -o pipefail; {line}"],
                                            env=self.environment(VSCTL=VSCTL), capture_output=True, text=True)
        for line in ("$VSCTL port number lab p0..p2999 | head -1",
                     "$VSCTL port number lab p0..p2999 --json | head -c 9", "$VSCTL help operations | head -1",
                     "$VSCTL export lab/p0..p2999 | head -1"):
            self.assertEqual((shell(line).returncode, shell(line).stderr), (0, ""), line)
        for number, (words, code, wanted) in enumerate((
                ("switch list > /dev/full", 1, "No space left on device"),
                ("switch list --json > /dev/full", 1, "No space left on device"),
                ("port vlan lab port0 {} > /dev/full", 1, "the change is made"),
                ("help > /dev/full", 1, "No space left"),
                ("port vlan lab port0 {} >&-", 1, "the change is made"), ("port vlan lab none {} 2>&-", 3, ""),
                ("port vlan lab port0 {} <&-", 0, ""),
                ("port vlan lab port0 {} <&- 2>&-", 0, ""), ("port vlan lab none 1 <&- >&- 2>&-", 3, ""),
                ("batch < /dev/null", 0, ""), ("plan - < /dev/null", 5, "switches"),
                ("switch create new{} --uplinks 1 >&- 2>&-", 1, ""))):
            done = shell("$VSCTL " + words.format(number))
            self.assertEqual(done.returncode, code, words)
            self.assertIn(wanted, done.stderr)
            if "port0" in words:  # the host is sound, although the output was lost
                self.assertEqual(self.rows("port", "vlan", "lab", "port0")[0]["id"], number)

    def test_what_is_shown_is_one_line_and_harmless(self):
        self.create()
        name = "a\nb\x1b[31m\x7f\u009b\udcff\u00e4"
        shown = "a\\x0ab\\x1b[31m\\x7f\\x9b\ufffd\u00e4"
        self.assertIn(shown, self.run_vsctl("switch", "show", name, code=3))
        self.run_vsctl("port", "add", "lab", name)
        self.assertIn(shown, self.run_vsctl("port", "number", "lab", name))
        self.assertEqual(len(self.run_vsctl("port", "number", "lab", f"{name},port0").splitlines()), 3)
        self.assertIn(name.replace("\udcff", "\ufffd"), self.rows("port", "number", "lab", name)[0]["port"])
        self.assertIn("a\\x0ab", self.run_vsctl("port", "add", "lab", f"{name}..2", code=5))

    def test_completion_in_fish(self):
        self.create()
        self.rows("switch", "create", "a longer name")
        (self.directory / "swfile").touch()
        self.write("rc.fish", self.run_vsctl("completion", "fish"))
        for line, wanted in (("vsctl sw", ["switch"]), ("vsctl switch cr", ["create"]), ("vsctl port vlan l", ["lab"]),
                             ("vsctl port vlan a", ["a longer name"]),
                             ("vsctl port vlan lab up", ["uplink0", "uplink1"]),
                             ("vsctl port vlan lab po", ["port0", "port1", "port2", "port3"]),
                             ("vsctl port vlan lab --pr", ["--priority"]), ("vsctl mac info lab --t", ["--timeout"]),
                             ("vsctl uplink link lab ", ["nic0", "nic1"]), ("vsctl plan sw", ["swfile"]),
                             ("vsctl plan x --replaces=sw", ["--replaces=swfile"]),
                             ("vsctl switch create sw", []), ("vsctl mac add lab port0 --hex sw", []),
                             ("vsctl port list lab --columns=po", ["--columns=port"]),
                             ("vsctl help port vl", ["vlan"]), ("vsctl watch uplink li", ["link", "list", "live"])):
            command = f"set PATH {BUILD} $PATH; source rc.fish; complete -C '{line}'"
            done = subprocess.run(["fish", "--no-config", "-c", command], cwd=self.directory, capture_output=True,
                                  text=True)
            self.assertEqual((done.stdout.split("\n")[:-1], done.stderr), (wanted, ""), line)

    def test_terminal_and_completion(self):
        self.create()
        self.rows("switch", "create", "a longer name")
        (self.directory / "swfile").touch()
        self.write("_vsctl", self.run_vsctl("completion", "zsh"))
        start = f"cd {self.directory}; PATH={BUILD}:$PATH; PS1='$ '; "
        bash = self.write("rc", start + "source <(vsctl completion bash)\n")
        zsh = start + "autoload -Uz compinit; bindkey '^I' complete-word; "
        (self.directory / "installed").mkdir()
        self.write("installed/.zshrc",
                   zsh + f"fpath=({self.directory} $fpath); compinit -u -D\n")  # as the package has it
        (self.directory / "sourced").mkdir()
        self.write("sourced/.zshrc", zsh + "compinit -u -D; source <(vsctl completion zsh)\n")
        for number, shell in enumerate((f"bash --noprofile --rcfile {bash} -i",
                                        *(f"ZDOTDIR={self.directory}/{kind} zsh -i"
                                          for kind in ("installed", "sourced")))):
            with self.subTest(shell):
                self.check_terminal(shell, str(self.directory / f"tmux{number}"))

    def check_terminal(self, shell, socket):
        tmux = lambda *words: subprocess.run(["tmux", "-S", socket, *words], capture_output=True, text=True,
                                             check=True).stdout
        tmux("-f", "/dev/null", "new-session", "-d", "-x", "120", "-y", "40", shell)
        self.addCleanup(subprocess.run, ["tmux", "-S", socket, "kill-server"], capture_output=True)

        def until(pattern, *capture):
            for _ in range(400):
                screen = tmux("capture-pane", "-p", *capture)
                if re.search(pattern, screen, re.M):
                    return screen
                time.sleep(0.1)
            self.fail(f"{pattern!r} never came: {screen}")

        until(r"\$")
        tmux("send-keys", "vsctl swi\tli\t\n")
        screen = until(r"^lab +lab ", "-e")
        self.assertRegex(screen, r"\x1b\[1mSWITCH +PORTSET")
        lines = [re.sub(r"\x1b\[[0-9;]*m", "", line) for line in screen.splitlines()]
        table = lines[next(i for i, line in enumerate(lines) if line.startswith("SWITCH")):][:3]
        self.assertEqual(len({line.find(word) for line, word in zip(table, ("PORTSET", "a longer", "lab  "))} - {0}), 1,
                         table)
        tmux("send-keys", "clear; vsctl uplink link l\t nic\t0\n")
        until(r"^lab +nic0 +yes")
        tmux("send-keys", "clear; vsctl port list lab --columns=number,po\t\n")
        until(r"^NUMBER +PORT")
        tmux("send-keys", "clear; vsctl plan --replaces=sw\t")
        until(r"--replaces=swfile")
        tmux("send-keys", "C-u", "clear; vsctl switch create sw\t --dry-run\n")
        until(r"^\+ switch sw +portset=sw$")  # a new switch is not a file, and has no id before it is made
        tmux("send-keys", "C-u", "clear; NO_COLOR=1 vsctl switch list\n")
        self.assertNotIn("\x1b[1mSWITCH", until(r"^lab +lab ", "-e"))
        tmux("kill-server")


if __name__ == "__main__":
    main()
