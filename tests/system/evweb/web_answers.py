"""A small fleet's archive, and what a page answers of it, whatever the engine."""

import csv
import io
import json
import pathlib
import re
import time
from urllib.parse import quote

from web_support import crash, event, wait_until

NOW = int(time.time())
HOSTILE = "<img src=x onerror=\"window.owned = 1\">"
HOSTILE_TEXT = b"<script>window.owned = 1</script><b>bold</b>"


def fill(archiver):
    """A small fleet: BLADE-1 with a hole, a crash and a log that began again; a hostile one; a quiet one."""
    hour = NOW - 3600
    first = [event("BLADE-1", number, seconds=hour + 60 * number, event_id=100 + number % 3, source=18,
                   kind=2 if number % 10 == 0 else 1, data=b"fan %d runs" % number) for number in range(1, 41)]
    archiver.send(first[:20] + first[24:])
    # The same ids with other bytes: the log was rebuilt.
    archiver.send([event("BLADE-1", number, seconds=NOW - 600 + number, data=b"after the rebuild %d" % number) for number in range(1, 13)] +
                  [crash("BLADE-1", 13, seconds=NOW - 500), event("BLADE-1", 14, seconds=NOW - 400, data=b"Needle in the hay")])
    archiver.send([event(HOSTILE, number, seconds=NOW - 300, data=HOSTILE_TEXT, enclosure=HOSTILE, kind=3) for number in range(1, 4)])
    archiver.send([event(b"\xff\x01blade", 1, seconds=NOW - 30, slot=9)])
    archiver.send([event("QUIET", number, seconds=NOW - 86400 * 3, slot=5) for number in range(1, 3)])


EVENTS = 36 + 14 + 3 + 1 + 2


class Answers:
    """What holds for every engine. Classes behind set up `web`."""

    def ask(self, question, status=200):
        given, body = self.web.ask(question)
        self.assertEqual(given, status, body)
        return body

    def events(self, question):
        return self.ask(f"events?{question}")["events"]

    def log_of(self, blade):
        return next(log["log"] for log in self.ask("logs")["logs"] if log["blade"] == blade)

    def test_overview_tells_of_each_log(self):
        logs = {log["blade"]: log for log in self.ask("logs")["logs"]}
        self.assertEqual(set(logs), {"BLADE-1", HOSTILE, "\\xFF\\x01blade", "QUIET"})
        self.assertEqual((logs["BLADE-1"]["generation"], logs["BLADE-1"]["lastId"], logs["BLADE-1"]["missing"]), (2, 14, 0))
        self.assertGreaterEqual(logs["QUIET"]["lag"], 86400 * 3)
        self.assertEqual(logs[HOSTILE]["lately"]["error"], 3)

    def test_overview_goes_on_behind_a_log(self):
        first = self.ask("logs?limit=3")
        rest = self.ask(f"logs?limit=3&behind={first['next']}")
        self.assertEqual((len(first["logs"]), len(rest["logs"]), rest["next"]), (3, 1, None))
        self.assertEqual(len({log["log"] for log in first["logs"] + rest["logs"]}), 4)

    def test_the_worst_logs_are_listed_first_and_others_not_at_all(self):
        found = self.ask("logs?order=worst")
        self.assertEqual([log["blade"] for log in found["logs"]], [HOSTILE, "BLADE-1"])
        self.assertEqual(found["lately"], {"error": 4, "warning": 4})
        self.assertEqual([log["blade"] for log in self.ask("logs?order=worst&find=lade")["logs"]], ["BLADE-1"])
        self.assertEqual(len(self.ask("logs?order=worst&limit=1")["logs"]), 1)

    def test_one_log_has_had_lately_what_the_list_says(self):
        for log in self.ask("logs")["logs"]:
            self.assertEqual(self.ask(f"log?log={log['log']}")["lately"], log["lately"], log["blade"])
            self.assertGreater(sum(log["lately"].values()), 0, log["blade"])

    def came(self, blade, *events):
        """Sends what goes after the test. Returns once it is listed."""
        self.addCleanup(self.remove, blade)
        self.archiver.send(list(events))
        wait_until(lambda: any((log["blade"], log["lastId"]) == (blade, len(events)) for log in self.ask("logs")["logs"]), f"events of {blade}")

    def test_the_last_hour_is_that_in_which_an_event_happened_and_came(self):
        before = self.ask("logs?order=worst")["lately"]
        self.came("AHEAD", *[event("AHEAD", number, seconds=NOW + 86400 * 400, kind=3) for number in range(1, 6)])
        self.came("BEHIND", *[event("BEHIND", number, seconds=NOW - 86400 * 400, kind=3) for number in range(1, 6)])
        worst = self.ask("logs?order=worst")
        self.assertEqual([log["blade"] for log in worst["logs"]], ["AHEAD", HOSTILE, "BLADE-1"])
        self.assertEqual(worst["lately"], {"error": before["error"] + 5, "warning": before["warning"]})
        self.assertEqual(self.ask(f"log?log={self.log_of('BEHIND')}")["lately"]["error"], 5)
        self.age("AHEAD", 3700)
        self.came("LATER", event("LATER", 1, seconds=NOW))
        worst = self.ask("logs?order=worst")
        self.assertEqual(([log["blade"] for log in worst["logs"]], worst["lately"]), ([HOSTILE, "BLADE-1"], before))

    def test_names_are_found_as_they_are_shown(self):
        blade, enclosure = "\\xFF\\x09B\\x5CÉ", "Жук Té"
        self.addCleanup(self.remove, enclosure, "enclosure")
        self.archiver.send([event(b"\xff\tB\\" + "É".encode(), 1, seconds=NOW, enclosure=enclosure)])
        for name in (f"blade={quote(blade)}", f"enclosure={quote(enclosure)}"):
            found = wait_until(lambda: self.events(name), name)
            self.assertEqual([(one["enclosureId"], one["bladeId"]) for one in found], [(enclosure, blade)])
            csv_line = self.web.request(f"/api/v1/export?form=csv&{name}")[2].decode().splitlines()[1]
            self.assertIn(f",{enclosure},{blade},", csv_line)
        for part in ("Жук", "té", "\\xff", "\\X5c", "É", "b\\x5CÉ", blade, enclosure):
            self.assertEqual([(log["enclosure"], log["blade"]) for log in self.ask(f"logs?find={quote(part)}")["logs"]
                              if "Ж" in log["enclosure"]], [(enclosure, blade)], part)
        self.assertEqual([self.ask(f"logs?find={quote(part)}")["logs"] for part in ("жук", "TÉ")], [[], []])

    def test_bytes_that_are_no_utf8_are_a_bad_request(self):
        for value in ("%ff", "%c2", "%c3(", "%ed%a0%80", "%c0%80", "%f5%80%80%80", "a%00b"):
            for question in ("logs?find=", "events?text=", "events?blade=", "events?enclosure=", "events?category=", "events?source=", "events?type=",
                             "events?id=", "events?since=", "events?before=", "tail?text=", f"timeline?since=@{NOW}&text=", "export?form=csv&blade="):
                with self.subTest(question + value):
                    name = question.rstrip("=").rpartition("&")[2].rpartition("?")[2]
                    self.assertRegex(self.ask(question + value, status=400)["error"], f"^{name}: (no UTF-8|a NUL)")

    def test_overview_finds_by_a_part_of_the_name(self):
        self.assertEqual([log["blade"] for log in self.ask("logs?find=lade-1")["logs"]], ["BLADE-1"])

    def test_pages_of_a_search_follow_each_other_without_a_hole(self):
        seen, before = [], ""
        while True:
            page = self.ask(f"events?limit=7&before={before}")
            seen += [(found["log"], found["generation"], found["sequenceId"]) for found in page["events"]]
            if page["next"] is None:
                break
            before = page["next"]
        self.assertEqual((len(seen), len(set(seen))), (EVENTS, EVENTS))

    def test_a_search_says_which_time_its_words_meant(self):
        page = self.ask("events?since=1970-01-02&until=@86400&limit=1")
        self.assertEqual((page["since"], page["until"]), ("1970-01-02T00:00:00Z", "1970-01-02T00:00:00Z"))

    def test_filters_are_those_of_all_readers(self):
        self.assertEqual({found["typeName"] for found in self.events("type=error,warning")}, {"error", "warning"})
        self.assertEqual(len(self.events("type=warning&limit=500")), 4)
        self.assertEqual(len(self.events("source=eventlog&id=11")), 1)
        self.assertEqual(len(self.events("blade=BLADE-1&seq=30:40")), 11)
        self.assertEqual(len(self.events("since=-2d&slot=5")), 0)
        self.assertEqual(len(self.events(f"until=@{NOW - 86400}")), 2)

    def test_times_that_a_filter_names_belong_to_it(self):
        second = NOW - 86400 * 3
        for log in ("", f"&log={self.log_of('QUIET')}"):
            for since, until, count in ((second, second, 2), (second + 1, second + 5, 0), (second - 5, second - 1, 0), (second - 1, second + 1, 2)):
                with self.subTest(log=log, since=since - second, until=until - second):
                    self.assertEqual(len(self.events(f"since=@{since}&until=@{until}{log}")), count)
                    line = self.ask(f"timeline?since=@{since}&until=@{until}{log}")
                    self.assertEqual(sum(map(sum, line["buckets"])), count)

    def test_pages_of_one_log_follow_each_other_without_a_hole(self):
        seen, before = [], ""
        while before is not None:
            page = self.ask(f"events?log={self.log_of('BLADE-1')}&limit=7&before={before}")
            seen += [(found["generation"], found["sequenceId"]) for found in page["events"]]
            before = page["next"]
        self.assertEqual((len(seen), len(set(seen))), (50, 50))

    def test_ids_that_are_missing_are_counted(self):
        self.archiver.send([event("HOLES", number, seconds=NOW - abs(number - 6)) for number in (3, 4, 6, 9, 10)])
        log = wait_until(lambda: next((log for log in self.ask("logs?find=holes")["logs"] if log["lastId"] == 10), None), "five events")
        self.assertEqual((log["firstId"], log["missing"]), (3, 3))
        generation = self.ask(f"log?log={log['log']}")["generations"][0]
        self.assertEqual(generation["runs"], [[3, 4], [6, 6], [9, 10]])
        self.assertEqual([generation[end] for end in ("firstTime", "lastTime")],
                         [time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(NOW - back)) for back in (3, 4)])
        self.remove("HOLES")

    def test_text_is_found_whatever_its_case(self):
        self.assertEqual([found["text"] for found in self.events("text=needle")], ["Needle in the hay"])
        self.assertEqual(self.events("text=bug-check")[0]["idName"], "bugcheck_error_msg")

    def test_one_log_is_listed_by_generation_and_id(self):
        found = self.events(f"log={self.log_of('BLADE-1')}&limit=500")
        self.assertEqual([one["generation"] for one in found], [2] * 14 + [1] * 36)
        self.assertEqual([one["sequenceId"] for one in found[:14]], list(range(14, 0, -1)))

    def test_log_tells_its_generations_and_gaps(self):
        log = self.ask(f"log?log={self.log_of('BLADE-1')}")
        self.assertEqual([(one["generation"], one["runs"]) for one in log["generations"]], [(2, [[1, 14]]), (1, [[1, 20], [25, 40]])])

    def test_neighbours_of_an_event_are_shown(self):
        found = self.ask(f"around?log={self.log_of('BLADE-1')}&id=13&reach=2")["events"]
        self.assertEqual([one["sequenceId"] for one in found], [14, 13, 12, 11])

    def test_one_event_tells_all_that_is_known(self):
        found = self.ask(f"event?log={self.log_of('BLADE-1')}&generation=2&id=13")
        self.assertIn("a record could not be read whole", found["advice"])
        self.assertEqual(found["fields"]["line"], {"value": 212, "shown": "212"})
        listed = self.events("id=11&source=eventlog")[0]
        self.assertEqual({name: {part: value for part, value in field.items() if part != "shown"} for name, field in found["fields"].items()},
                         listed["fields"])
        self.assertEqual(list(found["fields"]), list(listed["fields"]))
        self.assertEqual(found["severity"], listed["severity"])
        self.ask(f"event?log={self.log_of('BLADE-1')}&generation=2&id=99", status=404)

    def test_timeline_counts_every_event_once(self):
        line = self.ask(f"timeline?since=@{NOW - 86400 * 4}&until=@{NOW}&buckets=50")
        counts = [sum(column) for column in zip(*line["buckets"])]
        self.assertEqual(counts, [4, 4, EVENTS - 8, 0])
        self.assertEqual((line["cut"], line["since"] % line["width"]), (False, 0))

    def test_timeline_takes_filters(self):
        line = self.ask(f"timeline?since=@{NOW - 86400}&until=@{NOW}&type=error&blade=BLADE-1")
        self.assertEqual([sum(column) for column in zip(*line["buckets"])], [1, 0, 0, 0])

    def test_tail_gives_what_came_since(self):
        tail = self.ask("tail?limit=5")
        self.assertEqual(len(tail["events"]), 5)
        self.archiver.send([event("TAIL", number, seconds=NOW) for number in range(1, 4)])
        def came():
            return {found["sequenceId"] for found in self.ask(f"tail?after={tail['position']}")["events"] if found["bladeId"] == "TAIL"}
        wait_until(lambda: came() == {1, 2, 3}, "three events")
        self.remove("TAIL")

    def test_export_is_the_whole_search(self):
        status, headers, body = self.web.request("/api/v1/export?form=jsonl&type=warning,error")
        self.assertEqual((status, len(body.splitlines())), (200, 8))
        self.assertIn("attachment", headers["Content-Disposition"])
        self.assertEqual(len([json.loads(line) for line in body.splitlines()]), 8)
        _, _, body = self.web.request("/api/v1/export?form=csv")
        rows = list(csv.DictReader(io.StringIO(body.decode())))
        self.assertEqual(len(rows), EVENTS)
        self.assertIn(HOSTILE, {row["bladeId"] for row in rows})

    def test_every_part_of_an_answer_is_in_the_manual(self):
        manual = (pathlib.Path(__file__).parents[3] / "docs/man/evweb.8").read_text()
        known = set(re.findall(r"[A-Za-z]+", manual[manual.index(".SH QUESTIONS"):manual.index(".SH FILES")]))

        def names(answer):
            if isinstance(answer, dict):
                # Fields stand by name: these names are the catalogue's.
                parts = [list(part.values()) if name == "fields" else part for name, part in answer.items()]
                return set(answer).union(*map(names, parts))
            return set().union(*map(names, answer)) if isinstance(answer, list) else set()

        log = self.log_of("BLADE-1")
        for question in ("logs", f"log?log={log}", "events", f"event?log={log}&generation=2&id=13", f"around?log={log}&id=13", "tail",
                         f"timeline?since=@{NOW}", "status", "names"):
            with self.subTest(question):
                self.assertEqual(names(self.ask(question)) - known, set())

    def test_what_is_no_question_gets_a_400_that_says_why(self):
        for name in ("since", "until", "type"):
            self.assertRegex(self.ask(f"events?{name}=bogus", status=400)["error"], f"^{name}: .*'?bogus")
        for question, word in (("events?type=bogus", "bogus"), ("events?foo=1", "foo"), ("events?since=someday", "someday"),
                               ("events?limit=0", "limit"), ("events?limit=501", "501"), ("events?before=x", "before"),
                               ("events?seq=9:3", "9:3"), ("events?generation=1", "generation"), ("events?limit=5&limit=6", "limit"),
                               ("events?text=" + "x" * 600, "text"), ("events?text=a%00b", "NUL"), ("events?before=z1.2", "z1.2"),
                               ("timeline", "since"), ("timeline?since=@9&until=@5", "until"), ("log", "log"), ("log?log=1e3", "1e3"),
                               ("export?form=xml", "form"), ("around?log=1&id=-1", "-1"), ("around?log=1&id=1&reach=251", "250"), ("around?log=1", "id"),
                               ("timeline?since=-1h&buckets=401", "400"), ("logs?limit=501", "500"), ("logs?order=slot", "order"), ("tail?after=x", "after"),
                               ("event?log=1&id=1", "generation"), ("events?log=1&generation=0", "generation"), ("logs?behind=x", "behind"), ("status?x=1", "x")):
            with self.subTest(question):
                self.assertIn(word, self.ask(question, status=400)["error"])

    def test_what_is_not_there_gets_a_404(self):
        for question in ("nothing", "log?log=12345", "event?log=12345&generation=1&id=1"):
            self.ask(question, status=404)

    def test_queries_that_are_texts_of_the_engine_are_texts(self):
        for text in ("%27%3B%20DROP%20TABLE%20events%3B--", "%25", "_", "%5C", "%22"):
            self.assertEqual(self.ask(f"logs?find={text}").keys(), self.ask("logs").keys())
            self.events(f"blade={text}&text={text}")
        self.assertEqual(len(self.events("limit=500")), EVENTS)
