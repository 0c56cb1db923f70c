#!/usr/bin/env python3
"""Measures the archiver on SQLite: what an event costs it, how soon many blades have their answers, what idle links
take, and whether a blade's event manager feels that the archive is locked. Needs build/release (or --build) with emp,
evarchiver, evfleet and bench_load: cmake --preset release -DBLADE_BENCH=ON."""
import argparse
import json
import os
import signal
import sqlite3
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
TICKS = os.sysconf("SC_CLK_TCK")


class Archiver:
    """A running archiver with an archive of its own."""

    def __init__(self, build, directory, *options):
        self.database = tempfile.mktemp(suffix=".db", dir=directory)
        self.process = subprocess.Popen([os.path.join(build, "evarchiver"), "--listen", "127.0.0.1:0", "--progress", "0",
                                         "--connection-limit", "11000", "--db", self.database, *options],
                                        stdout=subprocess.PIPE, text=True)
        self.port = self.process.stdout.readline().rsplit(":", 1)[1].split()[0]

    def figure(self, name):
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as status:
            return next(int(line.split()[1]) for line in status if line.startswith(name))

    def cpu_seconds(self):
        with open(f"/proc/{self.process.pid}/stat", encoding="ascii") as stat:
            words = stat.read().rsplit(")", 1)[1].split()
        return (int(words[11]) + int(words[12])) / TICKS

    def held(self):
        with sqlite3.connect(f"file:{self.database}?mode=ro", uri=True) as reader:
            return reader.execute("SELECT count(*) FROM events").fetchone()[0]

    def end(self):
        self.process.send_signal(signal.SIGTERM)
        self.process.stdout.read()
        if self.process.wait(60) != 0:
            raise ValueError("the archiver did not end well")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()


def fleet(build, archiver, *options):
    done = subprocess.run([os.path.join(build, "evfleet"), "--to", f"127.0.0.1:{archiver.port}", "--json", "--progress",
                           "0", *options], check=True, stdout=subprocess.PIPE, text=True, timeout=120)
    return json.loads(done.stdout)


def intake(build, directory):
    with Archiver(build, directory) as archiver:
        before, begun = archiver.cpu_seconds(), time.monotonic()
        result = fleet(build, archiver, "--blades", "100", "--events", "3000")
        cpu = archiver.cpu_seconds() - before
        archiver.end()  # it files what it has first
        span = time.monotonic() - begun
        events = archiver.held()
    return {"events a second taken": events / result["sendSeconds"], "events a second filed": events / span,
            "processor time an event, us": cpu / events * 1e6}


def handshakes(build, directory):
    with Archiver(build, directory) as archiver:
        result = fleet(build, archiver, "--blades", "4000", "--events", "1")
        return {"first answers to 4,000 blades after, s": result["connectSeconds"],
                "the same and an event of each, s": result["connectSeconds"] + result["sendSeconds"]}


def idle(build, directory):
    with Archiver(build, directory) as archiver:
        fleet(build, archiver, "--blades", "10000", "--events", "0", "--ramp", "4000", "--hold", "2")
        return {"10,000 idle links, MB": archiver.figure("VmHWM") / 1024}


def blade(build, archiver, events, is_locked):
    """Events a second that a real event manager takes in, while its archiver's store is there or is not."""
    load = subprocess.Popen([os.path.join(build, "bench_load"), "archived", str(events), os.path.join(build, "emp")],
                            env={**os.environ, "BENCH_ARCHIVER": archiver.port}, stdin=subprocess.PIPE,
                            stdout=subprocess.PIPE, text=True)
    try:
        if load.stdout.readline() != "ready\n":
            raise ValueError("bench_load did not begin")
        while archiver.held() < 6000:
            time.sleep(0.1)  # all but what the log has lost before the link was open
        other = sqlite3.connect(archiver.database, isolation_level=None)
        if is_locked:
            other.execute("BEGIN IMMEDIATE")
        load.stdin.write("\n")
        load.stdin.flush()
        figures = json.loads(load.stdout.readline())
        other.close()
        return figures
    finally:
        load.kill()
        load.wait()


def store_away(build, directory, number, events):
    figures = {}
    for is_locked in (False, True) if number % 2 else (True, False):
        with Archiver(build, directory) as archiver:
            figures[is_locked] = blade(build, archiver, events, is_locked)
    return {"a blade's intake, store there, k/s": figures[False]["events_per_s"] / 1e3,
            "the same, store locked, k/s": figures[True]["events_per_s"] / 1e3,
            "the second / the first": figures[True]["events_per_s"] / figures[False]["events_per_s"],
            "processor time of it, second / first": figures[True]["cpu_ns"] / figures[False]["cpu_ns"]}


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", default=os.path.join(ROOT, "build", "release"), help="where the programs are")
    parser.add_argument("--rounds", type=int, default=3, help="rounds (default 3)")
    parser.add_argument("--events", type=int, default=100000, help="events of a blade (default 100000)")
    chosen = parser.parse_args()
    rounds = []
    for number in range(chosen.rounds):
        with tempfile.TemporaryDirectory() as directory:
            rounds.append({**intake(chosen.build, directory), **handshakes(chosen.build, directory),
                           **idle(chosen.build, directory),
                           **store_away(chosen.build, directory, number, chosen.events)})
        print(f"round {number + 1} of {chosen.rounds}", flush=True)
    print("\n| | median | least to most |\n|---|---|---|")
    for name in rounds[0]:
        values = [figures[name] for figures in rounds]
        print(f"| {name} | {statistics.median(values):.2f} | {min(values):.2f} to {max(values):.2f} |")
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (OSError, subprocess.SubprocessError, KeyError, ValueError, sqlite3.Error) as error:
        print(f"archive.py: {error}", file=sys.stderr)
        sys.exit(2)
