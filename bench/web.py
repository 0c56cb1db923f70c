#!/usr/bin/env python3
"""Measures questions of the page over a large archive, one after the other over one connection.

Usage: bench/web.py EVWEB ARCHIVE [ROUNDS]      (bench_web_archive makes a file; web_fleet.py asks an archive on PostgreSQL)
"""

import http.client
import json
import subprocess
import sys
import time


def main():
    evweb, archive = sys.argv[1:3]
    measure_page(evweb, archive, int(sys.argv[3]) if len(sys.argv) > 3 else 30)


def measure_page(evweb, archive, rounds):
    server = subprocess.Popen([evweb, "--db", archive, "--listen", "127.0.0.1:0"], stdout=subprocess.PIPE, text=True)
    started = time.monotonic()
    try:
        measure(server, started, rounds)
    finally:
        server.terminate()
        server.wait()


def measure(server, started, rounds):
    connection = http.client.HTTPConnection(server.stdout.readline().rpartition(" ")[2].strip())

    def ask(question):
        connection.request("GET", f"/api/v1/{question}")
        answer = connection.getresponse()
        body = json.loads(answer.read())
        return body if answer.status == 200 else {"cut": True, "events": []}

    def report(name, question):
        connection.close()  # the server ends connections that are minutes old
        times = []
        end = time.monotonic() + 10
        while len(times) < rounds and (len(times) < 3 or time.monotonic() < end):
            begun = time.perf_counter()
            body = ask(question)
            times.append(1000 * (time.perf_counter() - begun))
        times.sort()
        found = len(body.get("events", body.get("logs", body.get("buckets", []))))
        print(f"| {name} | {found}{' cut' if body.get('cut') else ''} | {times[len(times) // 2]:.1f} | {times[int(len(times) * 0.95)]:.1f} |")

    status = ask("status")
    print(f"{status['events'] or 'some'} events, {status['bytes'] / 1e9:.2f} GB\n\n| What | found | median ms | 95 % ms |\n|---|---|---|---|")
    report("newest 50, nothing known yet", "events")
    while ask("status")["surveyed"] < 1:
        time.sleep(0.05)
    took = time.monotonic() - started
    with open(f"/proc/{server.pid}/status") as file:
        memory = next(line.split()[1] for line in file if line.startswith("VmRSS"))
    newest = ask("events?limit=1")["events"][0]["seconds"]
    middle = newest - 15 * 86_400
    log = ask("logs?find=blade-500")["logs"][0]["log"]
    before = ask(f"events?until=@{middle}&limit=1")["next"]
    report("newest 50", "events")
    report("50 in the middle, by cursor", f"events?before={before}")
    report("newest 50 errors", "events?type=error")
    report("50 of one hour, 15 days ago", f"events?since=@{middle}&until=@{middle + 3600}")
    report("50 errors of one day, 15 days ago", f"events?since=@{middle}&until=@{middle + 86_400}&type=error")
    report("newest 50 of one blade", f"events?log={log}")
    report("newest 50 of one blade, by its name", "events?blade=BLADE-500")
    report("50 of one source and id", "events?source=11&id=7")
    report("an event id that is nowhere", "events?id=300")
    report("errors of an event id that has none", "events?type=error&id=300")
    report("a category that is nowhere", "events?category=9")
    report("what came since", f"tail?after={ask('tail?limit=1')['position']}")
    report("50 around an event", f"around?log={log}&id=5000")
    report("timeline of 30 days, 120 bars", f"timeline?since=@{newest - 30 * 86_400}&until=@{newest}&buckets=120")
    report("timeline of one hour, by the minute", f"timeline?since=@{middle}&until=@{middle + 3600}&buckets=60")
    report("timeline of 30 days, errors of one event id", f"timeline?since=@{newest - 30 * 86_400}&until=@{newest}&type=error&id=13")
    report("timeline of 30 days, one source", f"timeline?since=@{newest - 30 * 86_400}&until=@{newest}&source=11")
    report("timeline of one blade, 30 days", f"timeline?since=@{newest - 30 * 86_400}&until=@{newest}&log={log}")
    report("overview of 100 logs", "logs")
    report("the worst logs", "logs?order=worst")
    report("one log with its generations", f"log?log={log}")
    report("a text that is nowhere (ends after --query-time)", "events?text=nowhere")
    print(f"\nThe summary took {took:.1f} s; resident memory {int(memory) / 1024:.0f} MB.")


if __name__ == "__main__":
    main()
