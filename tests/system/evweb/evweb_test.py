"""The page over real archives: what is answered, to whom, and what a browser makes of it.

Usage: evweb_test.py PROGRAMS [--pictures DIRECTORY] [unittest arguments]
"""

import base64
import json
import os
import pathlib
import shutil
import sqlite3
import sys
import tempfile
import unittest

import web_support as support
from palette import with_palette
from web_answers import EVENTS, HOSTILE, HOSTILE_TEXT, NOW, Answers, fill
from live_page import LivePage
from picture_archive import fill_pictures
from web_support import Archiver, Browser, Postgres, Web, event, wait_until

PROGRAMS = sys.argv.pop(1)
PICTURES = sys.argv.pop(sys.argv.index("--pictures") + 1) if "--pictures" in sys.argv else None
sys.argv = [word for word in sys.argv if word != "--pictures"]
CHROMIUM = shutil.which("chromium")


class SqliteTest(Answers, LivePage, unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.directory = tempfile.TemporaryDirectory(prefix="evweb")
        cls.addClassCleanup(cls.directory.cleanup)
        cls.database = f"{cls.directory.name}/events.db"
        cls.archiver = Archiver(PROGRAMS, cls.database)
        cls.addClassCleanup(cls.archiver.end)
        fill(cls.archiver)
        cls.web = Web(PROGRAMS, cls.database)
        cls.addClassCleanup(cls.web.end)
        wait_until(lambda: len(cls.web.ask("events?limit=500")[1]["events"]) == EVENTS, "all events")

    def remove(self, name, column="blade"):
        with sqlite3.connect(self.database) as database:
            for table in ("events", "generations", "series"):
                database.execute(f"DELETE FROM {table} WHERE series = (SELECT series FROM series WHERE {column} = ?)", (name,))

    def age(self, blade, seconds):
        with sqlite3.connect(self.database) as database:
            database.execute("UPDATE events SET received = received - ? WHERE series = (SELECT series FROM series WHERE blade = ?)", (seconds, blade))

    # --- The server

    def test_only_questions_are_answered(self):
        for method in ("POST", "PUT", "DELETE", "OPTIONS", "PATCH"):
            status, headers, _ = self.web.request("/api/v1/status", method)
            self.assertEqual((status, headers["Allow"]), (405, "GET, HEAD"), method)
        status, headers, body = self.web.request("/api/v1/status", "HEAD")
        self.assertEqual((status, body), (200, b""))

    def test_every_answer_has_the_headers_of_a_careful_server(self):
        for path in ("/", "/search", "/app.js", "/api/v1/status", "/api/v1/export?form=csv", "/nothing", "/api/v1/events?type=x"):
            _, headers, _ = self.web.request(path)
            policy = headers["Content-Security-Policy"]
            self.assertIn("default-src 'none'", policy)
            self.assertNotIn("unsafe", policy)
            self.assertEqual((headers["X-Content-Type-Options"], headers["X-Frame-Options"], headers["Referrer-Policy"]),
                             ("nosniff", "DENY", "no-referrer"), path)
            self.assertEqual(len(headers.get_all("Content-Security-Policy")), 1)

    def test_pages_have_no_script_or_style_within(self):
        _, headers, body = self.web.request("/search?text=x")
        self.assertEqual(headers["Content-Type"], "text/html; charset=utf-8")
        for word in (b"<style", b"style=", b"onclick", b"http://", b"https://"):
            self.assertNotIn(word, body)

    def test_a_request_with_a_body_is_refused_and_ends_the_connection(self):
        answer = self.web.raw(b"GET / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 38\r\n\r\nGET /api/v1/status HTTP/1.1\r\nHost: a\r\n\r\n")
        self.assertTrue(answer.startswith(b"HTTP/1.1 400 "), answer[:100])
        self.assertEqual(answer.count(b"HTTP/1.1"), 1)

    def test_nonsense_is_answered_or_dropped_and_the_server_goes_on(self):
        for request in (b"\0\1\2\3\r\n\r\n", b"GET\r\n\r\n", b"GET " + b"/x" * 40_000 + b" HTTP/1.1\r\n\r\n",
                        b"GET / HTTP/1.1\r\n" + b"A: b\r\n" * 20_000 + b"\r\n",
                        b"GET /%ff%zz%00 HTTP/1.1\r\nHost: localhost\r\nRange: bytes=0-1,2-3,-\r\nConnection: close\r\n\r\n"):
            try:
                self.assertNotIn(b" 200 ", self.web.raw(request)[:20])
            except ConnectionError:
                pass
        self.assertEqual(self.web.ask("status")[0], 200)

    def test_a_request_is_read_up_to_its_bound(self):
        for parts, expected in ((5, True), (10, False)):  # of 5,000 bytes, each of which is allowed
            request = b"GET / HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n" + b"".join(b"X-%d: %s\r\n" % (number, b"x" * 5000) for number in range(parts))
            try:
                self.assertEqual(b" 200 " in self.web.raw(request + b"\r\n")[:20], expected, parts)
            except ConnectionError:
                self.assertFalse(expected)

    def test_a_name_that_is_not_the_servers_is_refused(self):
        self.assertEqual(self.web.request("/", host="evil.example:80")[0], 421)
        self.assertEqual(self.web.request("/", host="localhost")[0], 200)

    def test_connections_beyond_the_bound_are_refused_at_once(self):
        web = Web(PROGRAMS, self.database, "--connections", "2")
        self.addCleanup(web.end)
        host, _, port = web.place.rpartition(":")
        idle = [support.socket.create_connection((host, int(port))) for _ in range(2)]
        self.assertIn(b" 503 ", web.raw(b""))
        for link in idle:
            link.close()
        wait_until(lambda: web.request("/")[0] == 200, "room for a connection")

    @unittest.skipUnless(support.NETWORK, "no network of its own can be made here")
    def test_one_host_cannot_have_all_connections(self):
        tokens = pathlib.Path(self.directory.name) / "hosts"
        tokens.write_text("correct-horse-battery\n")
        tokens.chmod(0o600)
        web = support.FarWeb(PROGRAMS, self.database, "--connections", "4", "--token-file", str(tokens))
        self.addCleanup(web.end)

        def answers(host, count):
            """To so many that ask at the same time."""
            links = [web.link(host) for _ in range(count)]
            try:
                for link in links:
                    link.sendall(b"GET / HTTP/1.1\r\nHost: a\r\n\r\n")
                return [link.recv(12)[9:] for link in links]
            except ConnectionError:
                return []
            finally:
                for link in links:
                    link.close()

        slow = [web.link("192.0.2.1") for _ in range(3)]
        self.assertEqual(slow[2].recv(12)[9:], b"503")
        slow[0].sendall(b"GET / HT")
        self.assertEqual(answers("192.0.2.2", 2), [b"401", b"401"])
        slow[0].close()
        wait_until(lambda: answers("192.0.2.1", 1) == [b"401"], "room for the host's next one")
        slow[1].close()
        slow[2].close()
        wait_until(lambda: answers("127.0.0.1", 4) == [b"401"] * 4, "all connections for this host")

    def test_tokens_let_in(self):
        tokens = pathlib.Path(self.directory.name) / "tokens"
        tokens.write_text("# those of the night shift\ncorrect-horse-battery\n")
        tokens.chmod(0o600)
        web = Web(PROGRAMS, self.database, "--token-file", str(tokens), listen="0.0.0.0:0")
        self.addCleanup(web.end)
        web.place = web.place.replace("0.0.0.0", "127.0.0.1")
        basic = "Basic " + base64.b64encode(b"anybody:correct-horse-battery").decode()
        for given, status in ((None, 401), ("Bearer wrong-horse-battery", 401), ("Bearer ", 401), ("Basic !!", 401),
                              ("Bearer correct-horse-battery", 200), (basic, 200), ("bearer  correct-horse-battery", 200),
                              ("BASIC" + basic[5:], 200)):
            got, headers, _ = web.request("/api/v1/status", headers={"Authorization": given} if given else {})
            self.assertEqual(got, status, given)
        self.assertIn("Basic", web.request("/")[1]["WWW-Authenticate"])

    def test_a_proxys_user_lets_in(self):
        socket = f"{self.directory.name}/web.sock"
        web = Web(PROGRAMS, self.database, "--trusted-user-header", "X-User", listen=f"unix:{socket}")
        self.addCleanup(web.end)
        self.assertEqual(web.request("/", headers={"X-User": "ada"})[0], 200)
        self.assertEqual(web.request("/", headers={"X-User": ""})[0], 403)
        self.assertEqual(web.request("/")[0], 403)
        self.assertEqual(os.stat(socket).st_mode & 0o007, 0)

    def refused(self, *arguments):
        done = support.subprocess.run([f"{PROGRAMS}/evweb", *arguments], capture_output=True, text=True, timeout=support.DEADLINE)
        self.assertEqual(done.returncode, 2, done.stderr)
        return done.stderr

    def test_an_address_that_others_reach_needs_a_token(self):
        self.assertIn("--token-file", self.refused("--db", self.database, "--listen", "0.0.0.0:0"))
        self.assertIn("--token-file", self.refused("--db", self.database, "--listen", "[::]:0", "--trusted-user-header", "X-User"))

    def test_a_token_file_that_others_read_is_refused(self):
        tokens = pathlib.Path(self.directory.name) / "open"
        tokens.write_text("correct-horse-battery\n")
        tokens.chmod(0o644)
        self.assertIn("others", self.refused("--db", self.database, "--token-file", str(tokens)))

    # --- An archive that comes and goes

    def test_an_archive_that_is_away_is_said_and_comes_back(self):
        path = f"{self.directory.name}/away.db"
        web = Web(PROGRAMS, path)
        self.addCleanup(web.end)
        status, headers, _ = web.request("/api/v1/events")
        self.assertEqual((status, headers["Retry-After"]), (503, "2"))
        for count in (3, 5):
            archiver = Archiver(PROGRAMS, path)
            archiver.send([event("B", number, seconds=NOW) for number in range(1, count + 1)])
            archiver.end()
            self.assertEqual(len(web.ask("events")[1]["events"]), count)
            os.rename(path, path + ".old")
            self.assertEqual(web.ask("events")[0], 503)
        pathlib.Path(path).write_text("no archive" * 100)
        self.assertEqual(web.ask("events")[0], 503)

    def test_a_search_goes_on_only_in_the_file_that_it_began_in(self):
        path = f"{self.directory.name}/rewritten.db"
        archiver = Archiver(PROGRAMS, path)
        archiver.send([event(f"B{number % 2}", number, seconds=NOW) for number in range(1, 11)])
        archiver.end()
        web = Web(PROGRAMS, path)
        self.addCleanup(web.end)
        before = web.ask("events?limit=3")[1]["next"]
        self.assertEqual(web.ask(f"events?before={before}")[0], 200)
        with sqlite3.connect(path) as database:
            database.execute("VACUUM")
        self.assertIn("anew", web.ask(f"events?before={before}")[1]["error"])

    def test_an_open_page_does_not_hold_up_the_archiver(self):
        answers = []
        for number in range(1, 21):
            self.archiver.send([event("WRITER", number, seconds=NOW)])
            answers.append(self.web.ask("events?limit=500")[0])
        self.assertEqual(set(answers), {200})
        self.remove("WRITER")


@unittest.skipUnless((support.POSTGRES / "initdb").exists(), "no PostgreSQL here: its archives are not tested")
class PostgresTest(Answers, LivePage, unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = Postgres()
        cls.addClassCleanup(cls.server.end)
        # In this locale other letters than those of ASCII have small forms, too.
        cls.server.sql("CREATE DATABASE events TEMPLATE template0 LC_CTYPE 'C.UTF-8'")
        place = cls.server.place("events")
        support.subprocess.run([f"{PROGRAMS}/evarchiver", "db", "create", "--db", place], check=True, capture_output=True, timeout=support.DEADLINE)
        cls.server.sql("CREATE ROLE page LOGIN IN ROLE ev_reader")
        cls.archiver = Archiver(PROGRAMS, place)
        cls.addClassCleanup(cls.archiver.end)
        fill(cls.archiver)
        cls.web = Web(PROGRAMS, cls.server.place("events", "page"))
        cls.addClassCleanup(cls.web.end)
        wait_until(lambda: len(cls.web.ask("events?limit=500")[1].get("events", [])) == EVENTS, "all events")

    def remove(self, name, column="blade"):
        for table in ("events", "generations", "logs"):
            self.server.sql(f"DELETE FROM {table} WHERE log = (SELECT log FROM logs WHERE {column} = '{name}')", "events")

    def age(self, blade, seconds):
        self.server.sql(f"UPDATE events SET received = received - interval '{seconds} s' WHERE log = (SELECT log FROM logs WHERE blade = '{blade}')",
                        "events")

    def test_a_blade_says_where_its_own_log_began(self):
        columns = self.server.sql("SELECT column_name FROM information_schema.columns WHERE table_name = 'blade_list'", "events")
        first = 1 if "ring_first" in columns.split() else None  # archives of earlier archivers do not know
        self.assertEqual(self.ask(f"log?log={self.log_of('BLADE-1')}")["ringFirst"], first)

    def crowd(self, count, received):
        """Many events of one blade, each with an arrival of its own."""
        self.server.sql("INSERT INTO logs (log, identity, enclosure, blade, slot, instance, generation) VALUES (7, '', 'CROWD', 'CROWD', 1, 0, 1);"
                        f"INSERT INTO events SELECT 7, n, now(), {received}, 1, 1, 18, 1, 1, 1, true, false, NULL, '' FROM generate_series(1, {count}) n",
                        "events")
        self.addCleanup(self.remove, "CROWD")

    def ids_of_pages(self, question):
        """The ids that pages of a search show, one after the other."""
        page = self.ask(f"events?{question}")
        while True:
            yield from (found["sequenceId"] for found in page["events"])
            if not page["next"]:
                return
            page = self.ask(f"events?{question}&before={page['next']}")

    def test_events_of_one_second_follow_each_other_also_where_there_are_too_many_to_be_sorted_at_once(self):
        self.crowd(20_500, "date_trunc('second', now()) + interval '1 hour' + n * interval '40 microseconds'")
        ids = self.ids_of_pages("limit=300")
        self.assertEqual([next(ids) for _ in range(1000)], list(range(20_500, 19_500, -1)))

    def test_the_newest_of_many_events_a_second_are_on_the_first_page(self):
        self.crowd(20_500, "now() - n * interval '1 millisecond'")
        self.assertEqual([found["sequenceId"] for found in self.events("limit=50&enclosure=CROWD")], list(range(1, 51)))

    def test_pages_lead_into_a_crowd_and_out_of_it(self):
        self.crowd(20_500, "now() - interval '1 hour' - n * interval '20 milliseconds'")
        ids = self.ids_of_pages("limit=400&enclosure=CROWD&id=1")
        self.assertEqual([next(ids) for _ in range(1200)], list(range(1, 1201)))
        ids = self.ids_of_pages("limit=400&seq=20000:&id=1")
        self.assertEqual(list(ids), list(range(20_000, 20_501)))

    def test_of_a_past_time_what_came_late_is_shown_first_and_nothing_twice(self):
        day = NOW - 86400
        self.crowd(40, f"to_timestamp({day} + n) + CASE WHEN n > 36 THEN interval '20 hours' ELSE interval '1 s' END")
        self.server.sql(f"UPDATE events SET time = to_timestamp({day} + id) WHERE log = 7", "events")
        question = f"since=@{day}&until=@{day + 60}&enclosure=CROWD"
        self.assertEqual(list(self.ids_of_pages(f"{question}&limit=3")), list(range(40, 0, -1)))
        self.assertEqual([found["sequenceId"] for found in self.events(question)], list(range(40, 0, -1)))

    def test_the_newest_events_are_found_without_reading_a_table_whole(self):
        self.crowd(5000, "now() - (n * 7919 % 5000) * interval '1 minute'")  # the rows stand in no order
        self.server.sql("ANALYZE events", "events")
        scans = "SELECT sum(seq_scan) FROM pg_stat_all_tables WHERE relname LIKE 'events_%'"
        users = "SELECT count(*) FROM pg_stat_activity WHERE application_name = 'evweb'"
        before, others = self.server.sql(scans, "events"), self.server.sql(users)
        web = Web(PROGRAMS, self.server.place("events", "page"))
        self.assertEqual(len(web.ask("events?limit=50")[1]["events"]), 50)
        web.end()
        wait_until(lambda: self.server.sql(users) == others, "the server to know all that was done")
        self.assertEqual(self.server.sql(scans, "events"), before)

    def test_a_kind_that_is_rare_is_found_by_its_index_and_without_one(self):
        self.crowd(20_500, "now() - n * interval '20 milliseconds'")
        rare = "SELECT n * 4000 FROM generate_series(1, 5) n"
        self.server.sql(f"UPDATE events SET event = 777, source = 33 WHERE log = 7 AND id IN ({rare}); ANALYZE events", "events")
        maintain = [f"{PROGRAMS}/evarchiver", "db", "maintain", "--db", self.server.place("events")]
        support.subprocess.run(maintain, check=True, capture_output=True, timeout=support.DEADLINE)
        used = "SELECT sum(idx_blks_hit + idx_blks_read) FROM pg_statio_all_indexes WHERE indexrelname LIKE '%_by_kind'"
        users = "SELECT count(*) FROM pg_stat_activity WHERE application_name = 'evweb'"
        questions = ("source=33&id=777", "id=777", "source=33", "source=33,34&id=777,778", f"id=777&until=@{NOW + 60}")
        before, others = int(self.server.sql(used, "events")), self.server.sql(users)
        for has_index in (True, False):
            web = Web(PROGRAMS, self.server.place("events", "page"))
            for question in questions:
                found = web.ask(f"events?limit=50&{question}")[1]
                self.assertEqual([one["sequenceId"] for one in found["events"]], [4000, 8000, 12_000, 16_000, 20_000], question)
                self.assertIsNone(found["next"])
            for question in ("source=33&id=778", "id=65536", "source=99999&id=777", "source=4294967295", "id=4294967295"):
                self.assertEqual(web.ask(f"events?{question}")[1].get("events", []), [], question)
            web.end()
            wait_until(lambda: self.server.sql(users) == others, "the server to know all that was done")
            if has_index:
                self.assertGreater(int(self.server.sql(used, "events")), before)
                self.server.sql("DO $$ DECLARE name text; BEGIN FOR name IN SELECT relname FROM pg_class WHERE relname LIKE 'events%_by_kind' "
                                "LOOP EXECUTE 'DROP INDEX ' || name; END LOOP; END $$", "events")

    def test_nothing_can_be_changed_by_the_role_of_the_page(self):
        with self.assertRaisesRegex(RuntimeError, "permission denied"):
            self.server.sql("SET ROLE page; DELETE FROM events", "events")

    def test_a_server_that_is_away_is_said_and_comes_back(self):
        self.server.stop()
        try:
            status, headers, _ = self.web.request("/api/v1/events")
            self.assertEqual((status, headers["Retry-After"]), (503, "2"))
        finally:
            self.server.start()
        wait_until(lambda: self.web.ask("events")[0] == 200, "the server to be asked again")


@unittest.skipUnless(CHROMIUM, "no chromium here: what a browser makes of the pages is not tested")
class BrowserTest(unittest.TestCase):
    PAGES = ("/", "/search", "/search?type=error", "/timeline", "/live")

    @classmethod
    def setUpClass(cls):
        cls.directory = tempfile.TemporaryDirectory(prefix="evweb")
        cls.addClassCleanup(cls.directory.cleanup)
        database = f"{cls.directory.name}/events.db"
        archiver = Archiver(PROGRAMS, database)
        fill(archiver)
        archiver.end()
        cls.web = Web(PROGRAMS, database)
        cls.addClassCleanup(cls.web.end)
        cls.browser = Browser(CHROMIUM)
        cls.addClassCleanup(cls.browser.end)
        logs = cls.web.ask("logs")[1]["logs"]
        cls.logs = {log["blade"]: log["log"] for log in logs}

    def setUp(self):
        self.browser.size(1280, 900)
        self.browser.complaints()

    def show(self, path):
        self.browser.show(f"http://{self.web.place}{path}")

    def text(self):
        return self.browser.run("document.body.innerText")

    def all_pages(self):
        yield from self.PAGES
        for log in self.logs.values():
            yield f"/blade?log={log}"
        yield f"/event?log={self.logs['BLADE-1']}&generation=2&id=13"
        yield f"/event?log={self.logs[HOSTILE]}&generation=1&id=2"

    def test_every_page_is_drawn_without_a_complaint_at_any_width(self):
        for path in self.all_pages():
            with self.subTest(path):
                self.browser.size(1280, 900)
                self.show(path)
                for width in (1280, 700, 360):
                    self.browser.size(width, 740, width == 360)
                    self.assertLessEqual(self.browser.run("document.documentElement.scrollWidth"), width)
                self.assertEqual(self.browser.complaints(), [])
                self.assertIsNone(self.browser.run("window.owned ?? null"))

    def test_what_names_and_data_say_is_shown_as_it_is(self):
        self.show("/search")
        self.assertIn(HOSTILE_TEXT.decode(), self.text())
        self.assertIn(HOSTILE, self.text())
        self.assertEqual(self.browser.run("document.querySelectorAll('main img, main script, main b').length"), 0)

    def test_policy_stops_what_would_run_all_the_same(self):
        self.show("/")
        self.browser.run("document.body.insertAdjacentHTML('beforeend', '<img src=x onerror=\"window.ran = 1\"><p style=\"color: red\">x</p>')")
        wait_until(lambda: any("Content Security Policy" in text for text in self.browser.complaints()), "the policy to be applied")
        self.assertIsNone(self.browser.run("window.ran ?? null"))

    def test_keys_lead_through_a_page(self):
        self.show("/search?limit=5")
        self.browser.key("j")
        self.browser.key("j")
        self.assertEqual(self.browser.run("[...document.querySelectorAll('tbody tr')].findIndex((row) => row.contains(document.activeElement))"), 1)
        self.browser.key("k")
        chosen = self.browser.run("document.activeElement.href")
        self.browser.key("Enter")
        self.browser.await_true(f"location.href === {json.dumps(chosen)}", "the event to be opened")
        self.browser.drawn(chosen)
        self.browser.key("/", "Slash")
        self.browser.await_true("location.pathname === '/search'", "the search")
        self.browser.drawn()
        self.browser.key("/", "Slash")
        self.assertEqual(self.browser.run("document.activeElement.name"), "text")
        self.assertEqual(self.browser.complaints(), [])

    def test_next_page_is_one_key_away_and_has_its_own_address(self):
        self.show("/search?limit=5")
        first = self.browser.run("document.querySelector('tbody tr').dataset.key")
        self.browser.key("n")
        self.browser.await_true("location.search.includes('before=')", "the next page")
        self.browser.drawn()
        address = self.browser.run("location.href")
        second = self.browser.run("document.querySelector('tbody tr').dataset.key")
        self.assertNotEqual(first, second)
        self.browser.show(address)
        self.assertEqual(self.browser.run("document.querySelector('tbody tr').dataset.key"), second)

    def test_who_comes_back_finds_a_page_as_it_was_left(self):
        left = "/search?limit=30&blade=BLADE-1"
        self.browser.size(1280, 300)
        self.show(left)
        self.browser.run("document.querySelectorAll('tbody tr')[20].querySelector('a').focus({ preventScroll: true }); scrollTo(0, 400)")
        chosen = self.browser.run("document.activeElement.href")
        self.browser.key("Enter")
        for way, address in (("", chosen), ("history.back()", f"http://{self.web.place}{left}"), ("history.forward()", chosen)):
            self.browser.run(way)
            self.browser.drawn(address)
            if way == "history.back()":
                self.browser.await_true(f"scrollY === 400 && document.activeElement.href === {json.dumps(chosen)}", "the same place")
        self.assertEqual(self.browser.complaints(), [])

    def test_form_becomes_an_address(self):
        self.show("/search")
        self.browser.run("document.querySelector('#text').value = 'needle'; document.querySelector('[data-type][value=information]').checked = true;"
                         "document.querySelector('form button').click()")
        self.browser.await_true("location.search === '?text=needle&type=information'", "the search")
        self.browser.drawn()
        self.assertEqual(self.browser.run("document.querySelectorAll('tbody tr').length"), 1)

    def test_timeline_is_zoomed_by_key(self):
        self.show("/timeline")
        width = self.browser.run("document.querySelector('h1 small').textContent")
        self.browser.run("document.querySelector('.chart a').focus()")
        self.browser.key("ArrowRight")
        self.assertEqual(self.browser.run("document.activeElement.dataset.index"), "1")
        self.browser.key("Enter")
        self.browser.await_true("location.search.includes('since=')", "a closer look")
        self.browser.drawn()
        self.assertNotEqual(self.browser.run("document.querySelector('h1 small').textContent"), width)
        self.assertEqual(self.browser.complaints(), [])

    def test_a_wrong_filter_is_explained_beside_the_form(self):
        self.show("/search?since=someday")
        self.assertIn("someday", self.browser.run("document.querySelector('[role=alert]').textContent"))
        self.assertEqual(self.browser.run("document.querySelector('#since').value"), "someday")
        self.show("/timeline?since=someday&type=error")
        self.assertEqual(self.browser.run("[document.querySelector('#since').checkVisibility(), document.querySelector('main p a').search]"),
                         [True, "?type=error&since=someday"])

    def test_a_timeline_has_a_link_that_shows_the_same_tomorrow(self):
        self.show("/timeline?type=error")
        counts = "[...document.querySelectorAll('.lane b')].map((count) => count.textContent).join()"
        shown = self.browser.run(counts)
        address = self.browser.run("[...document.querySelectorAll('main a')].find((link) => link.textContent === 'permanent link').href")
        self.assertRegex(address, r"type=error&since=%40\d+&until=%40\d+$")
        self.show(address[address.index("/timeline"):])
        self.assertEqual(self.browser.run(counts), shown)

    def test_a_blade_shows_its_crash_and_its_gaps(self):
        self.show(f"/blade?log={self.logs['BLADE-1']}")
        text = self.text()
        for word in ("Crashes", "bug-check", "Generation 2", "Generation 1, superseded", "1 gap", "21 to 24", "Warnings and errors"):
            self.assertIn(word, text)
        self.assertNotIn("inset", self.browser.run("getComputedStyle(document.querySelector('tr.here')).boxShadow"), "a mark stands on no text")

    def test_a_wrong_address_shows_a_page_that_leads_back(self):
        self.show("/nothing")
        self.assertIn("no such page", self.text())
        self.assertEqual(self.browser.run("document.querySelector('main a').pathname"), "/")

    def test_what_the_fleet_is_sorted_by_stands_in_its_address(self):
        self.show("/")
        first = "document.querySelector('tbody tr').textContent"
        self.assertNotIn("BLADE-1", self.browser.run(first))
        self.browser.run("[...document.querySelectorAll('th button')].find((button) => button.textContent === 'events').click()")
        self.assertEqual(self.browser.run("location.search"), "?sort=-events")
        self.show("/?sort=-events")
        self.assertIn("BLADE-1", self.browser.run(first))
        self.assertEqual(self.browser.run("document.querySelector('th[aria-sort=descending]').textContent"), "events ↓")

    def test_a_search_has_a_link_that_shows_the_same_tomorrow(self):
        self.show("/search?since=-2h&type=error")
        address = self.browser.run("[...document.querySelectorAll('main a')].find((link) => link.textContent === 'permanent link').href")
        self.assertRegex(address, r"type=error&since=20\d\d-\d\d-\d\dT.*Z&until=20\d\d-.*Z$")
        self.show(address[address.index("/search"):])
        self.assertEqual(self.browser.run("document.querySelectorAll('tbody tr').length"), 4)

    def test_long_texts_leave_room_for_others(self):
        self.show("/search")
        self.assertEqual(self.browser.run("getComputedStyle(document.querySelector('td.text span')).webkitLineClamp"), "3")

    def test_what_matters_is_told_without_colour(self):
        self.show("/search?type=error")
        self.assertEqual(self.browser.run("getComputedStyle(document.querySelector('.kind.error')).fontWeight"), "700")
        self.assertEqual(self.browser.run("document.querySelector('.kind.error').textContent"), "error")

    def test_links_and_gaps_are_told_without_colour(self):
        plain = """[...document.querySelectorAll('main a')].filter((link) => !link.closest('svg') && link.ariaCurrent === null).filter((link) => {
            const style = getComputedStyle(link);
            return style.textDecorationLine !== 'underline' && style.borderTopStyle === 'none';
        }).map((link) => link.textContent)"""
        for path in self.all_pages():
            self.show(path)
            with self.subTest(path):
                self.assertEqual(self.browser.run(plain), [])
        self.show(f"/blade?log={self.logs['BLADE-1']}")
        heights = "[...new Set([...document.querySelectorAll('.strip .%s')].map((part) => part.getAttribute('height')))]"
        self.assertEqual([self.browser.run(heights % part) for part in ("held", "gap")], [["10"], ["4"]])

    def contrast(self, selector):
        return self.browser.run("""(() => {
            const parse = (text) => text.match(/[0-9.]+/g).map(Number);
            const light = (rgb) => rgb.slice(0, 3).map((part) => part / 255).map((part) => part <= 0.03928 ? part / 12.92 : ((part + 0.055) / 1.055) ** 2.4)
                .reduce((sum, part, index) => sum + part * [0.2126, 0.7152, 0.0722][index], 0);
            const element = document.querySelector(%s);
            let behind = element;
            while (parse(getComputedStyle(behind).backgroundColor)[3] === 0) behind = behind.parentElement;
            const [one, two] = [light(parse(getComputedStyle(element).color)), light(parse(getComputedStyle(behind).backgroundColor))];
            return (Math.max(one, two) + 0.05) / (Math.min(one, two) + 0.05);
        })()""" % json.dumps(selector))

    def test_texts_stand_out_in_light_and_in_dark(self):
        for scheme in ("light", "dark"):
            self.browser.scheme(scheme)
            self.show("/search?type=error,warning")
            for selector in ("h1", "#archive", "td a", ".kind.error", ".kind.warning", "th", "button.main"):
                with self.subTest(scheme=scheme, selector=selector):
                    self.assertGreaterEqual(self.contrast(selector), 4.5)


@unittest.skipUnless(PICTURES and CHROMIUM, "no --pictures DIRECTORY, or no chromium")
class Pictures(unittest.TestCase):
    def test_pictures(self):
        with tempfile.TemporaryDirectory(prefix="evweb") as directory:
            archiver = Archiver(PROGRAMS, f"{directory}/events.db")
            self.addCleanup(archiver.end)
            fill_pictures(archiver)
            web = Web(PROGRAMS, f"{directory}/events.db")
            self.addCleanup(web.end)
            browser = Browser(CHROMIUM)
            self.addCleanup(browser.end)
            log = next(log["log"] for log in web.ask("logs")[1]["logs"] if log["blade"] == "ctl-a4")
            found = web.ask(f"events?log={log}&source=eventlog&id=11")[1]["events"][0]
            pages = {"fleet": "/", "search": "/search?type=error,warning&since=-2h", "timeline": f"/timeline?since=@{NOW - 7200}&until=@{NOW}",
                     "blade": f"/blade?log={log}", "event": f"/event?log={log}&generation=1&id={found['sequenceId']}", "live": "/live?type=warning,error"}
            for name, path in pages.items():
                for look, scheme, width in (("light", "light", 1180), ("dark", "dark", 1180), ("phone", "light", 390)):
                    browser.scheme(scheme)
                    browser.size(width, 760, look == "phone")
                    browser.show(f"http://{web.place}{path}")
                    browser.await_true("document.getElementById('archive').textContent !== ''", "the page to be whole")
                    picture = browser.call("Page.captureScreenshot", format="png")["data"]
                    (pathlib.Path(PICTURES) / f"evweb-{name}-{look}.png").write_bytes(with_palette(base64.b64decode(picture)))


if __name__ == "__main__":
    unittest.main(verbosity=1)
