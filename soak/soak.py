#!/usr/bin/env python3
"""Runs dmond, dmcat and the load program against each other in rounds, does harm to them, and keeps
the books. scripts/soak.sh calls it with the programs' directory."""

import argparse
import json
import os
import pathlib
import random
import re
import resource
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

from proxy import Proxy

ROUND_SECONDS = 8
HARMS_A_ROUND = 3
HARMS = ["kill", "end", "stop", "vanish", "clock", "descriptors", "threads", "lies"]
NOBODYS = 61613  # a user whose threads can be limited, in place of root's
FAKETIME = "faketime/libfaketimeMT.so.1"
PYTHON = "/usr/bin/python3"  # the one that runs this may be out of that user's reach
MEMORY_TOLERANCE_KIB = 2048
SETTLE_SECONDS = 3
MOST_SETTLE_SECONDS = 25  # a session that says nothing is given 15


class Process:
    """One of the programs under test."""

    def __init__(self, soak, name, command, **options):
        self.soak = soak
        self.name = name
        with open(soak.directory / "log", "ab") as log:
            self.popen = subprocess.Popen(
                command, stderr=log, stdout=subprocess.PIPE, text=True,
                env=soak.environment, **soak.user, **options)
        soak.started.append(self)
        self.pid = self.popen.pid

    def state(self):
        """What it holds: memory in KiB, and numbers."""
        status = pathlib.Path(f"/proc/{self.pid}/status").read_text()
        memory, threads = (int(re.search(rf"^{field}:\s+(\d+)", status, re.M)[1])
                           for field in ("VmRSS", "Threads"))
        return {"memory": memory, "descriptors": len(self.descriptors()), "threads": threads,
                "queues": queues_of(self.pid)}

    def descriptors(self):
        return [int(fd) for fd in os.listdir(f"/proc/{self.pid}/fd")]

    def limit(self, what, most):
        """Sets a soft limit of prlimit(1), as the process's own user: root may lack the right."""
        subprocess.run(["prlimit", f"--pid={self.pid}", f"--{what}={most}:"], check=True,
                       **self.soak.user)

    def end(self, how=signal.SIGTERM):
        self.popen.send_signal(how)
        self.popen.stdout.close()
        return self.popen.wait(30)


class Daemon(Process):
    def __init__(self, soak, name, number, port=0):
        super().__init__(soak, name, [soak.program("dmond"), "--udp", f"127.0.0.1:{port}", "--hdc",
                                      str(number), "--ipc", str(number), "--interval", "1000"])
        self.number = number
        self.port = port
        for line in [self.popen.stdout.readline() for _ in range(3)]:
            if (found := re.search(r"udp://127.0.0.1:(\d+)", line)) is not None:
                self.port = int(found[1])

    def again(self):
        return Daemon(self.soak, self.name, self.number, self.port)


class Load(Process):
    def __init__(self, soak, *urls):
        super().__init__(soak, "load", [soak.program("soak_load"), *urls], stdin=subprocess.PIPE)

    def begin(self, seconds, seed):
        self.popen.stdin.write(f"run {int(seconds * 1000)} {seed}\n")
        self.popen.stdin.flush()
        if self.popen.stdout.readline() != "begun\n":
            raise RuntimeError("the load cannot begin a round")

    def books(self):
        return json.loads(self.popen.stdout.readline())


def queues_of(*pids):
    """System V queues that the processes wrote to or read from last."""
    lines = pathlib.Path("/proc/sysvipc/msg").read_text().splitlines()
    columns = lines[0].split()
    rows = (dict(zip(columns, line.split())) for line in lines[1:])
    return sum(row["lspid"] in map(str, pids) or row["lrpid"] in map(str, pids) for row in rows)


class Series:
    """dmcat's requests to one URL."""

    def __init__(self, soak, url, number):
        self.url = url
        self.data = f"{number:08x}"
        self.wanted = 100
        self.process = Process(soak, "dmcat", [
            soak.program("dmcat"), url, "ping", "--data", self.data, "--json", "--count",
            str(self.wanted), "--interval", str(int(ROUND_SECONDS * 700 / self.wanted)),
            "--timeout", "1500" if url.startswith("hdc") else "250"])

    def enter(self, row):
        output, _ = self.process.popen.communicate(timeout=120)
        lines = [json.loads(line) for line in output.splitlines()]
        replies = [line for line in lines if "seq" in line]
        seen = set()
        row["sent"] += self.wanted
        for reply in replies:
            row["doubled"] += reply["seq"] in seen
            seen.add(reply["seq"])
            if "timeout" in reply:
                row["timed_out"] += 1
            elif "not_sent" in reply:
                row["refused"] += 1
            else:
                row["answered"] += 1
                row["mixed"] += reply.get("status") != 0 or reply.get("data") != self.data
        return self.process.popen.returncode in (0, 1, 3)


class Soak:
    def __init__(self, programs, libraries, minutes, seed):
        self.random = random.Random(seed)
        self.seed = seed
        self.seconds = minutes * 60
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="soak-"))
        self.started = []
        self.user = {}
        self.faults = []
        self._copy(programs, libraries)
        self._set_environment()

    def _copy(self, programs, libraries):
        for file in [*programs, *libraries, pathlib.Path(__file__).with_name("liar.py")]:
            shutil.copy(file, self.directory)
        (self.directory / "hal").mkdir(mode=0o700)
        (self.directory / "clock").write_text("+0\n")
        os.chmod(self.directory, 0o755)
        if os.geteuid() == 0:
            self.user = {"user": NOBODYS, "group": NOBODYS, "extra_groups": []}
            os.chown(self.directory / "hal", NOBODYS, NOBODYS)

    def _set_environment(self):
        self.environment = {
            "PATH": os.environ["PATH"], "LD_LIBRARY_PATH": str(self.directory),
            "DM_HAL_DIR": str(self.directory / "hal"), "DM_LOG_LEVEL": "none"}
        found = list(pathlib.Path("/usr/lib").glob(f"*/{FAKETIME}"))
        if found:
            self.environment |= {
                "LD_PRELOAD": str(found[0]),
                "FAKETIME_TIMESTAMP_FILE": str(self.directory / "clock"),
                "FAKETIME_DONT_FAKE_MONOTONIC": "1", "FAKETIME_CACHE_DURATION": "1"}
        else:
            HARMS.remove("clock")
            print("The wall clock is not stepped: the package faketime is not installed.")
        self.harms = dict.fromkeys(HARMS, 0)
        self.next_harms = []

    def program(self, name):
        return str(self.directory / name)

    def fault(self, text):
        self.faults.append(text)
        print(f"  FAULT: {text}", flush=True)

    # ---- harm ----

    def do_harm(self):
        """Of all kinds equally often. Gives the kind."""
        if not self.next_harms:
            self.next_harms = self.random.sample(HARMS, len(HARMS))
        name = self.next_harms.pop()
        self.harms[name] += 1
        getattr(self, f"_{name}")()
        return name

    def _kill(self):
        self.mortal.end(signal.SIGKILL)
        time.sleep(self.random.uniform(0.2, 1))
        self.mortal = self.mortal.again()

    def _end(self):
        if self.mortal.end() != 0:
            self.fault("the mortal daemon did not end with 0")
        self.mortal = self.mortal.again()

    def _stop(self):
        self.mortal.popen.send_signal(signal.SIGSTOP)
        time.sleep(self.random.uniform(0.3, 1))
        self.mortal.popen.send_signal(signal.SIGCONT)

    def _vanish(self):
        proxy = self.random.choice(self.proxies)
        proxy.silent = True
        time.sleep(self.random.uniform(0.5, 2))
        proxy.silent = False

    def _clock(self):
        seconds = self.random.choice([-86400, -3600, -30, 0, 30, 3600, 86400])
        (self.directory / "clock").write_text(f"{seconds:+d}\n")

    def _descriptors(self):
        process = self.random.choice([self.steady, self.load])
        top = max(process.descriptors())
        self._limit_for_a_while(process, "nofile", top + self.random.randint(1, 3),
                                resource.getrlimit(resource.RLIMIT_NOFILE)[0])

    def _threads(self):
        process = self.random.choice([self.steady, self.load])
        self._limit_for_a_while(process, "nproc", 1, resource.getrlimit(resource.RLIMIT_NPROC)[0])

    def _limit_for_a_while(self, process, what, most, usual):
        process.limit(what, most)
        time.sleep(self.random.uniform(0.5, 2))
        process.limit(what, "unlimited" if usual == resource.RLIM_INFINITY else usual)

    def _lies(self):
        """By the user's own programs mostly; others are refused."""
        user = self.random.choice([self.user, self.user, {}])
        subprocess.run([PYTHON, self.program("liar.py"), self.directory / "hal",
                        str(self.random.uniform(0, 1)), str(self.random.getrandbits(31))],
                       check=True, timeout=60, **user)

    # ---- rounds ----

    def run(self):
        self.steady = Daemon(self, "steady daemon", 0)
        self.mortal = Daemon(self, "mortal daemon", 1, self._lasting_port())
        self.proxies = [Proxy(daemon.port, self.random.random())
                        for daemon in (self.steady, self.mortal)]
        urls = [f"udp://127.0.0.1:{proxy.port}" for proxy in self.proxies]
        self.load = Load(self, *urls, "hdc://0")
        urls += ["hdc://0", "hdc://1", "ipc://0", "ipc://1"]
        names = [f"dmcat: {kind}, {which} daemon" for kind in ("UDP", "HDC", "IPC")
                 for which in ("steady", "mortal")]
        self.requests = {name: dict.fromkeys(
            ("sent", "answered", "timed_out", "refused", "gone", "doubled", "mixed"), 0)
            for name in names}
        began = time.monotonic()
        first = None
        number = 0
        while first is None or time.monotonic() - began < self.seconds - ROUND_SECONDS:
            number += 1
            self._round(number, dict(zip(names, urls)))
            if first is None and time.monotonic() - began >= min(60, self.seconds / 4):
                first = self._rest()
        last = self._rest(first)
        self._end_all()
        return self._judge(first, last, number, time.monotonic() - began)

    def _lasting_port(self):
        """One that the system gives nobody while the daemon is away (ip_local_port_range)."""
        while True:
            port = self.random.randrange(20000, 32000)
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
                try:
                    sock.bind(("127.0.0.1", port))
                    return port
                except OSError:
                    continue

    def _look_after(self):
        for process in (self.steady, self.mortal, self.load):
            if process.popen.poll() is not None:
                raise RuntimeError(f"the {process.name} ended: {process.popen.returncode}")

    def _round(self, number, urls):
        seed = self.random.getrandbits(31)
        self.load.begin(ROUND_SECONDS, seed)
        series = {name: Series(self, url, self.random.getrandbits(31))
                  for name, url in urls.items()}
        harms = []
        for _ in range(HARMS_A_ROUND):
            time.sleep(self.random.uniform(0.2, 0.8))
            self._look_after()
            harms.append(self.do_harm())
        for name, one in series.items():
            if not one.enter(self.requests[name]):
                self.fault(f"{name} ended with {one.process.popen.returncode}")
        self.books = self.load.books()
        self._look_after()
        if not self.books["quiet"]:
            self.fault("the load did not come to rest")
        sent = sum(row["sent"] for row in self._rows().values())
        print(f"round {number}: {', '.join(harms)}; {sent} requests so far", flush=True)

    def _rest(self, wanted=None):
        """What the lasting processes hold once all has settled: after a moment, or, where it is
        known what they should hold, as soon as they do, but for what takes longer than it may."""
        end = time.monotonic() + (SETTLE_SECONDS if wanted is None else MOST_SETTLE_SECONDS)
        while True:
            state = {process.name: process.state() for process in (self.steady, self.load)}
            if time.monotonic() > end or wanted is not None and not self._changes(wanted, state):
                return state
            time.sleep(0.5)

    def _end_all(self):
        self.load.popen.stdin.close()
        for process, status in ((self.load, self.load.popen.wait(30)),
                                (self.steady, self.steady.end()), (self.mortal, self.mortal.end())):
            if status != 0:
                self.fault(f"the {process.name} ended with {status}")
        for proxy in self.proxies:
            proxy.close()
        left = queues_of(*(process.pid for process in self.started))
        if left != 0:
            self.fault(f"{left} queues stay behind")

    # ---- the books ----

    def _rows(self):
        return self.books["requests"] | self.requests

    @staticmethod
    def _changes(first, last):
        """What differs, in words; of memory what has grown."""
        return [f"{name}: {what} {amount} -> {last[name][what]}"
                for name, held in first.items() for what, amount in held.items()
                if (last[name][what] > amount + MEMORY_TOLERANCE_KIB if what == "memory"
                    else last[name][what] != amount)]

    def _judge(self, first, last, rounds, seconds):
        print(f"\n{seconds:.0f} s, seed {self.seed}, {rounds} rounds; harm done: "
              + ", ".join(f"{name} {times}" for name, times in self.harms.items()))
        counts = {what: sum(proxy.counts[what] for proxy in self.proxies)
                  for what in self.proxies[0].counts}
        print("on the way between UDP peers: " + ", ".join(f"{n} {c}" for n, c in counts.items()))
        columns = ("sent", "answered", "timed_out", "refused", "gone", "doubled", "mixed")
        table(["requests", *columns],
              [[name, *(row[column] for column in columns)] for name, row in self._rows().items()])
        for name, row in self._rows().items():
            if row["sent"] != sum(row[column] for column in columns[1:5]):
                self.fault(f"{name}: not each request has one outcome")
            if row["doubled"] or row["mixed"] or not row["answered"]:
                self.fault(f"{name}: answers are doubled, mixed up or missing")
        self._judge_work()
        table(["at rest", "memory (KiB)", "descriptors", "threads", "queues"],
              [[f"{name}, {when}", *held.values()] for when, state in
               (("first", first), ("last", last)) for name, held in state.items()])
        for change in self._changes(first, last):
            self.fault(change)
        print("\nAll adds up." if not self.faults else f"\n{len(self.faults)} faults.")
        return not self.faults

    def _judge_work(self):
        work = {name: self.books[name] for name in ("churn", "tasks", "binary", "mutex", "queues")}
        print()
        for name, counts in work.items():
            print(f"{name}: " + ", ".join(f"{what} {count}" for what, count in counts.items()))
        tasks, queues = work["tasks"], work["queues"]
        if tasks["made"] != tasks["ended"] + tasks["deleted"]:
            self.fault("tasks are missing")
        if queues["written"] != queues["read"] or queues["wrong"]:
            self.fault("messages in queues are missing")
        for lock in (work["binary"], work["mutex"]):
            if lock["tries"] != lock["taken"] + lock["timed_out"] or lock["overlaps"]:
                self.fault("a lock failed, or was held twice")

    def clean(self):
        for process in self.started:
            if process.popen.poll() is None:
                process.popen.terminate()
                try:
                    process.popen.wait(5)
                except subprocess.TimeoutExpired:
                    process.popen.kill()
                    process.popen.wait()
        for process in self.started:  # what faketime leaves of a killed one
            for path in pathlib.Path("/dev/shm").glob(f"*faketime*_{process.pid}"):
                path.unlink(missing_ok=True)
        log = (self.directory / "log").read_text(errors="replace")
        if log:
            print(f"The programs wrote:\n{log[-4000:]}")
        shutil.rmtree(self.directory)


def table(head, rows):
    cells = [[str(cell) for cell in row] for row in [head, *rows]]
    widths = [max(map(len, column)) for column in zip(*cells)]
    print()
    for number, row in enumerate(cells):
        print("| " + " | ".join(cell.ljust(width) if place == 0 else cell.rjust(width)
                                for place, (cell, width) in enumerate(zip(row, widths))) + " |")
        if number == 0:
            print("|" + "|".join("-" * (width + 1) + (":" if place else "-")
                                 for place, width in enumerate(widths)) + "|")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--minutes", type=float, required=True)
    parser.add_argument("--seed", type=int, required=True)
    options = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # through clean()
    build = options.build
    soak = Soak([build / "bin/dmond", build / "bin/dmcat", build / "soak/soak_load"],
                (build / "lib").glob("*.so*"), options.minutes, options.seed)
    try:
        return 0 if soak.run() else 1
    finally:
        soak.clean()


if __name__ == "__main__":
    sys.exit(main())
