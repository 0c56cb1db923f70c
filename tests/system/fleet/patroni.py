#!/usr/bin/env python3
"""A fleet whose database is watched by Patroni: the primary is killed, and whoever watches promotes.

    patroni.py PROGRAMS [ROUNDS]

etcd, two servers under Patroni (synchronous mode), two archivers, 200 simulated blades that send all
the while. By turns the primary's server is killed, and its whole node, Patroni included; the next
round begins when both nodes are whole again. At the end the archive is compared with what the blades
have sent. PROGRAMS is the directory that has evarchiver and evfleet; ROUNDS are 4. Everything is on
the loopback, on free ports, and in a temporary directory. Status 1: something is missing or twice.
"""

import contextlib
import json
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.request

BINARIES = "/usr/lib/postgresql/15/bin"
BLADES = 200
EVENTS_A_ROUND = 60  # of each blade, one a second: a round takes some 30 s and may not take longer than this
PATIENCE = 90  # seconds for whatever must come about


def free_port():
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


def wait_for(what, condition):
    deadline = time.monotonic() + PATIENCE
    while time.monotonic() < deadline:
        result = condition()
        if result:
            return result
        time.sleep(0.2)
    raise TimeoutError(f"waited in vain for {what}")


def sql(url, statement):
    """What a server answers; nothing where there is none, or it refuses."""
    answer = subprocess.run(["psql", "-qAtX", url, "-c", statement], capture_output=True, text=True,
                            check=False)
    return answer.stdout.strip()


class Place:
    """A temporary directory, and the processes that end with it."""

    def __init__(self):
        self.path = pathlib.Path(tempfile.mkdtemp(prefix="patroni"))
        self.path.chmod(0o755)
        self.processes = []

    def start(self, name, command, as_server=False):
        if as_server and os.geteuid() == 0:
            command = ["setpriv", "--reuid=postgres", "--regid=postgres", "--clear-groups",
                       "--pdeathsig=KILL", *command]
        with open(self.path / f"{name}.log", "ab") as log:
            process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                       cwd=self.path)
        self.processes.append(process)
        return process

    def directory(self, name):
        path = self.path / name
        path.mkdir(mode=0o700)
        if os.geteuid() == 0:
            shutil.chown(path, "postgres", "postgres")
        return path

    def end(self):
        for process in reversed(self.processes):
            if process.poll() is None:
                process.kill()
                process.wait()
        shutil.rmtree(self.path, ignore_errors=True)


class Node:
    """A server and the Patroni that watches it."""

    def __init__(self, place, name, etcd):
        self.place, self.name = place, name
        self.port, self.rest = free_port(), free_port()
        home = place.directory(name)
        self.data = home / "data"
        self.configuration = place.path / f"{name}.json"
        self.configuration.write_text(json.dumps(self.settings(home, etcd)))
        self.start()

    def settings(self, home, etcd):
        here = f"127.0.0.1:{self.rest}"
        server = f"127.0.0.1:{self.port}"
        return {
            "scope": "fleet",
            "name": self.name,
            "restapi": {"listen": here, "connect_address": here},
            "etcd3": {"host": f"127.0.0.1:{etcd}"},
            "bootstrap": {
                "dcs": {"ttl": 20, "loop_wait": 2, "retry_timeout": 5, "synchronous_mode": True,
                        "primary_start_timeout": 0, "postgresql": {"use_pg_rewind": True}},
                "initdb": [{"encoding": "UTF8"}, {"locale": "C"}],
            },
            "postgresql": {
                "listen": server,
                "connect_address": server,
                "data_dir": str(self.data),
                "bin_dir": BINARIES,
                "pgpass": str(home / "pgpass"),
                "authentication": {"superuser": {"username": "postgres"},
                                   "replication": {"username": "replicator"},
                                   "rewind": {"username": "postgres"}},
                "pg_hba": ["host all all 127.0.0.1/32 trust",
                           "host replication all 127.0.0.1/32 trust", "local all all trust"],
                "parameters": {"unix_socket_directories": str(home), "fsync": "off",
                               "wal_log_hints": "on", "dynamic_shared_memory_type": "mmap"},
                "remove_data_directory_on_rewind_failure": True,
                "remove_data_directory_on_diverged_timelines": True,
            },
        }

    def start(self):
        self.patroni = self.place.start(f"{self.name}.patroni",
                                        ["patroni", str(self.configuration)], as_server=True)

    def server(self):
        return int((self.data / "postmaster.pid").read_text().splitlines()[0])

    def kill_server(self):
        os.kill(self.server(), signal.SIGKILL)

    def kill(self):
        """As if its power had gone."""
        server = self.server()
        self.patroni.kill()
        self.patroni.wait()
        os.kill(server, signal.SIGKILL)

    def members(self):
        """Name to (role, state, timeline), as this node has it; nothing where it does not answer."""
        try:
            with urllib.request.urlopen(f"http://127.0.0.1:{self.rest}/cluster", timeout=2) as answer:
                return {member["name"]: (member["role"], member["state"], member.get("timeline"))
                        for member in json.load(answer)["members"]}
        except (OSError, ValueError, KeyError):
            return {}


class Pair:
    def __init__(self, place, etcd):
        self.nodes = {name: Node(place, name, etcd) for name in ("one", "two")}

    def whole(self):
        """The primary, once the other follows it synchronously."""
        roles = [node.members() for node in self.nodes.values()]
        if roles[0] != roles[1] or len(roles[0]) != 2 or len({role[2] for role in roles[0].values()}) != 1:
            return None
        by_role = {role: name for name, (role, state, _) in roles[0].items()
                   if state in ("running", "streaming")}
        return self.nodes[by_role["leader"]] if set(by_role) == {"leader", "sync_standby"} else None

    def other(self, node):
        return next(each for each in self.nodes.values() if each is not node)

    def url(self, database):
        hosts = ",".join(f"127.0.0.1:{node.port}" for node in self.nodes.values())
        return f"postgresql://postgres@{hosts}/{database}?target_session_attrs=read-write"


def start_archiver(place, programs, number, database):
    archiver = place.start(f"archiver{number}",
                           [str(programs / "evarchiver"), "--listen", "127.0.0.1:0", "--db", database,
                            "--progress", "0"])

    def address():
        lines = (place.path / f"archiver{number}.log").read_text()
        return lines.split("listening on ", 1)[1].split()[0] if "listening on " in lines else None

    return archiver, wait_for("an archiver", address)


def stored(pair):
    return int(sql(pair.url("events"), "SELECT count(*) FROM event_list") or 0)


def fail_over(pair, number):
    primary = wait_for("two whole nodes", pair.whole)
    before = wait_for("the archive to answer", lambda: stored(pair) or 1)
    wait_for("events to be filed", lambda: stored(pair) > before + 5 * BLADES)
    heir = pair.other(primary)
    began = time.monotonic()
    whole_node = number % 2 == 1
    primary.kill() if whole_node else primary.kill_server()
    wait_for("the other to be the primary",
             lambda: heir.members().get(heir.name, ("",))[0] == "leader")
    print(f"{'node' if whole_node else 'server'} {primary.name} killed after {before} events, "
          f"{heir.name} leads {time.monotonic() - began:.0f} s later", flush=True)
    if whole_node:
        primary.start()


def run(place, programs, rounds):
    etcd, peers = free_port(), free_port()
    place.start("etcd", ["etcd", "--name", "etcd", "--data-dir", str(place.directory("etcd")),
                         "--listen-client-urls", f"http://127.0.0.1:{etcd}",
                         "--advertise-client-urls", f"http://127.0.0.1:{etcd}",
                         "--listen-peer-urls", f"http://127.0.0.1:{peers}",
                         "--initial-advertise-peer-urls", f"http://127.0.0.1:{peers}",
                         "--initial-cluster", f"etcd=http://127.0.0.1:{peers}"], as_server=True)
    pair = Pair(place, etcd)
    wait_for("two whole nodes", pair.whole)
    sql(pair.url("postgres"), "CREATE DATABASE events")
    wait_for("the database on both nodes", lambda: all(
        sql(f"postgresql://postgres@127.0.0.1:{node.port}/events", "SELECT 1")
        for node in pair.nodes.values()))
    database = pair.url("events")
    subprocess.run([str(programs / "evarchiver"), "db", "create", "--db", database,
                    "--retention-days", "4"], check=True)
    archivers = [start_archiver(place, programs, number, database) for number in (1, 2)]
    fleet = place.start("fleet", [
        str(programs / "evfleet"), "--blades", str(BLADES), "--events", str(EVENTS_A_ROUND * rounds),
        "--rate", "1", "--outages", "1", "--settle", str(PATIENCE), "--progress", "0",
        "--check", database, *(word for _, address in archivers for word in ("--to", address))])
    for number in range(rounds):
        fail_over(pair, number)
        if fleet.poll() is not None:
            raise RuntimeError("the fleet ended before the last fail-over")
    status = fleet.wait(timeout=EVENTS_A_ROUND * rounds + 3 * PATIENCE)
    print((place.path / "fleet.log").read_text(), end="")
    for archiver, _ in archivers:
        archiver.send_signal(signal.SIGTERM)
        status = archiver.wait(timeout=PATIENCE) or status
    return 0 if status == 0 else 1


def main():
    if len(sys.argv) not in (2, 3):
        print(__doc__, file=sys.stderr)
        return 2
    place = Place()
    for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
        signal.signal(number, lambda *_: sys.exit(1))
    try:
        return run(place, pathlib.Path(sys.argv[1]).resolve(),
                   int(sys.argv[2]) if len(sys.argv) == 3 else 4)
    except Exception as error:
        for log in sorted(place.path.glob("*.log")):
            print(f"--- {log.name}\n" + "\n".join(log.read_text(errors="replace").splitlines()[-15:]))
        print(f"patroni: {error}", file=sys.stderr)
        return 1
    finally:
        place.end()


if __name__ == "__main__":
    sys.exit(main())
