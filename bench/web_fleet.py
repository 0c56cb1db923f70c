#!/usr/bin/env python3
"""Measures questions of the page over a large archive on PostgreSQL, in a server of its own that is gone afterwards.

Usage: bench/web_fleet.py BUILD EVENTS [ROUNDS]     (BUILD: a directory with evarchiver and evweb)

The archive is that of bench_web_archive: a thousand blades that log by turns over thirty days. It is made twice: rows
in the order in which they arrived, as archivers file them, and log by log, as `evarchiver db import` does.
"""

import os
import subprocess
import sys
import tempfile
import time

import fleet
import web

BLADES = 1000
STEP = 1_000_000
DAYS = 30

LOGS = f"""
INSERT INTO logs (log, identity, enclosure, blade, slot, instance, generation, epoch, seen, highest, run_first, run_last)
SELECT hashint8extended(b, 7), '', 'ENC-' || b / 14, 'BLADE-' || b, b % 14, 0, 1, 1, now(), {{events}} / {BLADES}, 1, {{events}} / {BLADES}
FROM generate_series(0, {BLADES - 1}) b;
INSERT INTO generations (log, generation, opened) SELECT log, 1, now() - interval '{DAYS} days' FROM logs"""

# A number tells all of an event; its order tells how rows stand.
EVENTS = f"""
INSERT INTO events (log, id, time, received, generation, event, source, type, category, idversion, own, doubtful, data)
SELECT hashint8extended(n % {BLADES}, 7), n / {BLADES} + 1, t, t + interval '1 second', 1, n * 13 % 200, n * 7 % 33,
       CASE WHEN n % 1000 = 13 THEN 3 WHEN n % 50 = 7 THEN 2 ELSE 1 END, 1, 1, true, false,
       rpad('measured value ' || n * 31 % 977, 100, ' ')::bytea
FROM (SELECT n, to_timestamp({{now}}) - interval '1 day' * {DAYS} * ({{events}} - n) / {{events}} AS t
      FROM ({{numbers}}) numbers) timed"""

IN_ORDER = "SELECT generate_series({first}::bigint, {last} - 1) AS n"
BY_LOG = (f"SELECT b + {BLADES} * i AS n FROM generate_series({{first}}::bigint * {BLADES} / {{events}}, {{last}}::bigint * {BLADES} / {{events}} - 1) b, "
          f"generate_series(0, {{events}} / {BLADES} - 1) i")


def make(server, build, database, events, numbers):
    server.sql(f"CREATE DATABASE {database}")
    place = server.place(database)
    subprocess.run([os.path.join(build, "evarchiver"), "db", "create", "--db", place, "--retention-days", str(DAYS + 1)], check=True,
                   stdout=subprocess.DEVNULL)
    server.sql(LOGS.format(events=events), database)
    now = int(time.time())
    for first in range(0, events, STEP):
        last = min(events, first + STEP)
        server.sql(EVENTS.format(events=events, now=now, numbers=numbers.format(events=events, first=first, last=last)), database)
    subprocess.run([os.path.join(build, "evarchiver"), "db", "maintain", "--db", place], check=True, stdout=subprocess.DEVNULL)
    server.sql("ANALYZE", database)
    return place


def main():
    build, events = sys.argv[1], int(sys.argv[2])
    rounds = int(sys.argv[3]) if len(sys.argv) > 3 else 20
    with tempfile.TemporaryDirectory(prefix="evweb_bench") as directory:
        server = fleet.Server(directory)
        server.sql("ALTER SYSTEM SET fsync = off")
        server.sql("ALTER SYSTEM SET full_page_writes = off")
        server.sql("SELECT pg_reload_conf()")
        try:
            for name, numbers in (("arrived", IN_ORDER), ("imported", BY_LOG)):
                place = make(server, build, name, events, numbers)
                print(f"\n{name}: ", end="", flush=True)
                web.measure_page(os.path.join(build, "evweb"), place, rounds)
        finally:
            server.stop()


if __name__ == "__main__":
    main()
