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
        closed = subprocess.run(["bash", "-c", f"set -o pipefail; timeout 10 {VSCTL} watch --interval 50ms switch list | head -1"],
                                capture_output=True, text=True)
        self.assertEqual((closed.returncode, closed.stderr), (0, ""))
        self.run_vsctl("watch", "switch", "destroy", "lab", code=2)

    def test_terminal_and_completion(self):
        self.create()
        self.rows("switch", "create", "a longer name")
        script = self.write("rc", f"PATH={BUILD}:$PATH\nPS1='$ '\nsource <(vsctl completion bash)\n")
        socket = str(self.directory / "tmux")
        tmux = lambda *words: subprocess.run(["tmux", "-S", socket, *words], capture_output=True, text=True, check=True).stdout
        tmux("-f", "/dev/null", "new-session", "-d", "-x", "120", "-y", "40", f"bash --noprofile --rcfile {script} -i")
        self.addCleanup(subprocess.run, ["tmux", "-S", socket, "kill-server"], capture_output=True)

        def until(pattern, *capture):
            for _ in range(100):
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
        self.assertEqual(len({line.find(word) for line, word in zip(table, ("PORTSET", "a longer", "lab  "))} - {0}), 1, table)
        tmux("send-keys", "clear; vsctl uplink link l\t nic\t0\n")
        until(r"^lab +nic0 +yes")
        tmux("send-keys", "clear; NO_COLOR=1 vsctl switch list\n")
        self.assertNotIn("\x1b[1m", until(r"^lab +lab ", "-e"))


if __name__ == "__main__":
    main()
