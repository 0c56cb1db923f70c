#!/usr/bin/env python3
"""Measures an archive on PostgreSQL beside its floors, in a server of its own: on a Unix socket, in a temporary
directory, with fsync. Needs build/release (or --build) with evarchiver, evfleet and bench_fleet:
cmake --preset release -DBLADE_BENCH=ON."""
import argparse
import json
import os
import pwd
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time
import urllib.parse
import urllib.request

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
POSTGRES = "/usr/lib/postgresql/15/bin"
TICKS = os.sysconf("SC_CLK_TCK")


def words_of(pid):
    with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
        return stat.read().rsplit(")", 1)[1].split()


def figure(pid, name):
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        return next(int(line.split()[1]) for line in status if line.startswith(name)) / 1024


class Server:
    """A PostgreSQL server that is gone with its directory."""

    def __init__(self, directory):
        self.directory = directory
        self.user = []
        if os.geteuid() == 0:  # a server refuses to run as root
            self.user = ["setpriv", "--reuid=postgres", "--regid=postgres", "--clear-groups", "--pdeathsig=QUIT"]
            os.chown(directory, pwd.getpwnam("postgres").pw_uid, pwd.getpwnam("postgres").pw_gid)
        self.data = os.path.join(directory, "data")
        self.call(["initdb", "--no-sync", "--auth=trust", "--username=postgres", "--encoding=UTF8", "--locale=C",
                   "-D", self.data])
        self.process = None
        self.start()

    def call(self, command):
        subprocess.run([*self.user, os.path.join(POSTGRES, command[0]), *command[1:]], check=True, cwd=self.directory,
                       stdout=subprocess.DEVNULL, timeout=60)

    def start(self):
        settings = ["listen_addresses=", "shared_buffers=512MB", "max_wal_size=8GB", "checkpoint_timeout=1h",
                    "max_connections=60", "log_min_messages=fatal", "wal_compression=on", "autovacuum_naptime=5s"]
        self.process = subprocess.Popen([*self.user, os.path.join(POSTGRES, "postgres"), "-D", self.data, "-k",
                                         self.directory, *(word for it in settings for word in ("-c", it))],
                                        cwd=self.directory, stderr=subprocess.DEVNULL)
        for _ in range(200):
            try:
                self.sql("SELECT 1")
                return
            except subprocess.CalledProcessError:
                time.sleep(0.05)
        raise ValueError("the server does not start")

    def stop(self, how=signal.SIGINT):
        self.process.send_signal(how)
        self.process.wait(60)

    def place(self, database):
        return f"postgresql://postgres@{urllib.parse.quote(self.directory, safe='')}/{database}"

    def sql(self, statements, database="postgres"):
        return subprocess.run(["psql", "-XAtqd", self.place(database), "-c", statements], check=True, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, timeout=200).stdout.strip()

    def cpu_seconds(self):
        """Of the server and all its processes, those that have ended too."""
        ticks = sum(int(word) for word in words_of(self.process.pid)[11:15])
        with open(f"/proc/{self.process.pid}/task/{self.process.pid}/children", encoding="ascii") as children:
            for child in children.read().split():
                ticks += sum(int(word) for word in words_of(child)[11:13])
        return ticks / TICKS

    def wal(self):
        return int(self.sql("SELECT pg_current_wal_insert_lsn() - '0/0'"))


class Archiver:
    """A running archiver."""

    def __init__(self, build, place, *options):
        with socket.create_server(("127.0.0.1", 0)) as free:
            self.metrics = free.getsockname()[1]
        self.process = subprocess.Popen([os.path.join(build, "evarchiver"), "--listen", "127.0.0.1:0", "--progress", "0",
                                         "--connection-limit", "11000", "--metrics", str(self.metrics), "--db", place,
                                         *options], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.port = self.process.stdout.readline().rsplit(":", 1)[1].split()[0]

    def cpu_seconds(self):
        return sum(int(word) for word in words_of(self.process.pid)[11:13]) / TICKS

    def stored(self):
        with urllib.request.urlopen(f"http://127.0.0.1:{self.metrics}/metrics", timeout=10) as page:
            lines = page.read().decode().splitlines()
        return next(int(float(line.split()[1])) for line in lines if line.startswith("evarchiver_events_stored_total "))

    def end(self):
        self.process.send_signal(signal.SIGTERM)
        self.process.stdout.read()
        self.process.wait(60)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()


class Bench:
    """One round, in one server."""

    def __init__(self, chosen, directory):
        self.chosen = chosen
        self.build = chosen.build
        self.server = Server(directory)
        self.figures = {}

    def program(self, name, *words, **options):
        return subprocess.run([os.path.join(self.build, name), *map(str, words)], check=True, text=True, timeout=200,
                              stdout=subprocess.PIPE, **options).stdout

    def archive(self, name):
        self.server.sql(f"CREATE DATABASE {name}")
        self.program("evarchiver", "db", "create", "--db", self.server.place(name))
        return self.server.place(name)

    def fleet(self, port, *options):
        return json.loads(self.program("evfleet", "--to", f"127.0.0.1:{port}", "--json", "--progress", "0",
                                       "--settle", 60, *map(str, options)))

    def load(self, port, *options):
        return subprocess.Popen([os.path.join(self.build, "evfleet"), "--to", f"127.0.0.1:{port}", "--progress", "0",
                                 *map(str, options)], stdout=subprocess.DEVNULL)

    def intake(self, name, lanes):
        """Blades that send as fast as they can, until all is filed; what it took, and the archive's place."""
        place = self.archive(name)
        self.server.sql("CHECKPOINT")
        with Archiver(self.build, place, "--lanes", str(lanes)) as archiver:
            self.fleet(archiver.port, "--blades", 100, "--events", 1, "--enclosure", "WARM")
            cpu, server, wal = archiver.cpu_seconds(), self.server.cpu_seconds(), self.server.wal()
            first, events, begun = archiver.stored(), self.chosen.events // 100 * 100, time.monotonic()
            with self.load(archiver.port, "--blades", 100, "--events", events // 100) as load:
                while archiver.stored() < first + events:
                    if load.poll():
                        raise ValueError("not everything was filed")
                    time.sleep(0.01)
                span = time.monotonic() - begun
                archiver_cpu, server_cpu = archiver.cpu_seconds() - cpu, self.server.cpu_seconds() - server
                wal = self.server.wal() - wal
                load.kill()
            archiver.end()
        return place, {"archiver": archiver_cpu / events * 1e6, "server": server_cpu / events * 1e6,
                       "wal": wal / events, "rate": events / span, "events": events}

    def floor(self, name, source, how, connections):
        """The same rows by the server alone."""
        place = self.archive(name)
        self.server.sql("CHECKPOINT")
        with subprocess.Popen([os.path.join(self.build, "bench_fleet"), "floor", source, place, how, str(connections)],
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as floor:
            if floor.stdout.readline() != "ready\n":
                raise ValueError("the floor did not begin")
            server, wal = self.server.cpu_seconds(), self.server.wal()
            floor.stdin.write("\n")
            floor.stdin.flush()
            result = json.loads(floor.stdout.readline())
            result["server"] = (self.server.cpu_seconds() - server) / result["events"] * 1e6
            result["wal"] = (self.server.wal() - wal) / result["events"]
            result["client"] = result["cpu"] / result["events"] * 1e6
            result["rate"] = result["events"] / result["seconds"]
        return result

    def drop(self, *names):
        for name in names:
            self.server.sql(f"DROP DATABASE {name} WITH (FORCE)")

    def put(self, what, value, floor=None):
        self.figures[what] = (value, floor)

    def events(self):
        place, one = self.intake("one", 1)
        fence = self.floor("fence", place, "fence", 1)
        array = self.floor("arrays", place, "array", 1)
        copy = self.floor("copied", place, "copy", 1)
        stored = int(self.server.sql("SELECT sum(pg_total_relation_size(relid)) FROM pg_partition_tree('events')",
                                     "one")) / int(self.server.sql("SELECT count(*) FROM events", "one"))
        self.drop("fence", "arrays", "copied")
        place, four = self.intake("four", 4)
        eight = self.floor("eight", place, "fence", 8)
        self.drop("one", "four", "eight")
        self.put("processor time an event, archiver and server, us", one["archiver"] + one["server"],
                 fence["client"] + fence["server"])
        self.put("of that the server, us", one["server"], fence["server"])
        self.put("of that the archiver, us", one["archiver"], fence["client"])
        self.put("the server beside arrays alone, us", one["server"], array["server"])
        self.put("the server beside COPY, us", one["server"], copy["server"])
        self.put("write-ahead log an event, B", one["wal"], fence["wal"])
        self.put("the same beside COPY, B", one["wal"], copy["wal"])
        self.put("stored an event, B", stored, 271)
        self.put("events a second, one lane", one["rate"], fence["rate"])
        self.put("events a second, 4 lanes; 8 connections", four["rate"], eight["rate"])
        self.put("processor time an event, 4 lanes, us", four["archiver"] + four["server"],
                 eight["client"] + eight["server"])

    def handshakes(self):
        place = self.archive("many")
        logs = json.loads(self.program("bench_fleet", "fill", place, self.chosen.rows))["logs"]
        self.server.sql("VACUUM (FREEZE, ANALYZE)", "many")
        self.server.sql("CHECKPOINT")
        with Archiver(self.build, place, "--lanes", "1") as archiver:
            # The first one of each log finds the end of its run.
            self.program("bench_fleet", "handshake", archiver.port, logs, logs)
            asked = json.loads(self.program("bench_fleet", "handshake", archiver.port, logs, 1000))
            alone = json.loads(self.program("bench_fleet", "statements", place, logs, 1000))
            self.put(f"handshake at {self.chosen.rows / 1e6:.1f} million events, ms", asked["handshake50"] * 1e3,
                     alone["statements50"] * 1e3)
        with Archiver(self.build, place) as archiver:
            many = self.fleet(archiver.port, "--blades", 1000, "--events", 0)
            self.put("1,000 new blades at once, s", many["connectSeconds"], asked["handshake50"] * 1000 / 2)
        self.drop("many")

    def delay(self):
        place = self.archive("delay")
        with Archiver(self.build, place, "--lanes", "1") as archiver:
            with self.load(archiver.port, "--blades", 50, "--events", 400, "--rate", 20) as load:
                time.sleep(1)
                measured = json.loads(self.program("bench_fleet", "safe", archiver.port, place, 100))
                load.kill()
            archiver.end()
        commit99 = self.floor("fence", place, "fence", 1)["commit99"]
        self.put("received until safe, 99 of 100, ms", measured["safe99"] * 1e3, 100 + 2e3 * commit99)
        self.drop("delay", "fence")

    def memory(self):
        place = self.archive("memory")
        with Archiver(self.build, place) as archiver:
            base = figure(archiver.process.pid, "VmHWM")
            self.fleet(archiver.port, "--blades", 10000, "--events", 0, "--ramp", 1000, "--hold", 1)
            idle = figure(archiver.process.pid, "VmHWM") - base
        self.put("an idle link of 10,000, KiB", idle * 1024 / 10000, 4)
        spool = 64
        with Archiver(self.build, place, "--spool", str(spool << 20)) as archiver:
            self.fleet(archiver.port, "--blades", 100, "--events", 10, "--enclosure", "WARM")
            base = figure(archiver.process.pid, "VmHWM")
            with self.load(archiver.port, "--blades", 400, "--events", 6000, "--rate", 1000, "--enclosure",
                           "OUTAGE") as load:
                time.sleep(1)
                self.server.stop(signal.SIGQUIT)
                time.sleep(self.chosen.outage)
                load.kill()
            self.server.start()
            most = figure(archiver.process.pid, "VmHWM")
        self.put("resident after an outage of the store, MB, beside the base and the spool", most, base + spool)
        self.drop("memory")

    def run(self):
        try:
            if "events" in self.chosen.what:
                self.events()
            if "handshakes" in self.chosen.what:
                self.handshakes()
            if "delay" in self.chosen.what:
                self.delay()
            if "memory" in self.chosen.what:
                self.memory()
        finally:
            self.server.stop(signal.SIGQUIT)
        return self.figures


def report(rounds):
    print("\n| | measured | floor | ratio | least to most |\n|---|---|---|---|---|")
    for name in dict.fromkeys(name for figures in rounds for name in figures):
        values = [figures[name] for figures in rounds if name in figures]
        ratios = sorted(value / floor for value, floor in values)
        print(f"| {name} | {statistics.median(value for value, _ in values):.2f} "
              f"| {statistics.median(floor for _, floor in values):.2f} "
              f"| {statistics.median(ratios):.2f} | {ratios[0]:.2f} to {ratios[-1]:.2f} |")


def main():
    parts = ["events", "handshakes", "delay", "memory"]
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", default=os.path.join(ROOT, "build", "release"), help="where the programs are")
    parser.add_argument("--rounds", type=int, default=3, help="rounds (default 3)")
    parser.add_argument("--events", type=int, default=200000, help="events that are filed (default 200000)")
    parser.add_argument("--rows", type=int, default=1000000, help="events that handshakes meet (default 1000000)")
    parser.add_argument("--outage", type=float, default=5, help="seconds that the store is away (default 5)")
    parser.add_argument("--only", dest="what", action="append", choices=parts, help="a part of it; default: all")
    chosen = parser.parse_args()
    chosen.what = chosen.what or parts
    rounds = []
    for number in range(chosen.rounds):
        with tempfile.TemporaryDirectory(prefix="fleet") as directory:
            begun = time.monotonic()
            rounds.append(Bench(chosen, directory).run())
            chosen.what = [part for part in chosen.what if part not in ("delay", "memory")]  # once will do
        if not chosen.what:
            break
        print(f"round {number + 1} of {chosen.rounds}, {time.monotonic() - begun:.0f} s", flush=True)
    report(rounds)
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (OSError, subprocess.SubprocessError, KeyError, ValueError) as error:
        print(f"fleet.py: {error}", file=sys.stderr)
        sys.exit(2)
