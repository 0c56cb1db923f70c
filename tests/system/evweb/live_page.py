"""What comes while somebody looks: the question behind the live page, and the page in a browser, over either engine."""

import re
import shutil
import time
import unittest

from web_support import Browser, event, wait_until

CHROMIUM = shutil.which("chromium")


class LivePage:
    """For classes that have an archiver, a web and remove(), and a database if the archive is a file."""

    def send_live(self, blade, first, last):
        self.archiver.send([event(blade, number, seconds=int(time.time())) for number in range(first, last + 1)])

    def tail_behind(self, position, limit):
        tail = self.ask(f"tail?blade=LATE&limit={limit}&after={position}")
        return [found["sequenceId"] for found in tail["events"]], tail["skipped"], tail["position"]

    def test_tail_of_a_crowd_is_its_newest_events_and_says_how_many_more_came(self):
        position = self.ask("tail")["position"]
        self.addCleanup(self.remove, "LATE")
        self.addCleanup(self.remove, "OTHER")
        self.assertEqual(self.tail_behind(position, 5)[:2], ([], 0))
        self.send_live("LATE", 1, 10)
        self.send_live("OTHER", 1, 7)  # which nobody asks for, and nobody counts
        self.send_live("LATE", 11, 20)
        wait_until(lambda: self.tail_behind(position, 20)[:2] == (list(range(1, 21)), 0), "twenty events")
        ids, skipped, behind = self.tail_behind(position, 5)
        self.assertEqual((ids, skipped), ([16, 17, 18, 19, 20], 15))
        # What comes again is left out of the count: it was told of.
        ids, skipped, behind = self.tail_behind(behind, 5)
        self.assertEqual((ids, skipped), ([16, 17, 18, 19, 20], 0))
        self.send_live("LATE", 21, 23)
        wait_until(lambda: self.tail_behind(behind, 5)[:2] == ([19, 20, 21, 22, 23], 0), "three more")

    @unittest.skipUnless(CHROMIUM, "no chromium here: what a browser makes of the live page is not tested")
    def test_live_page_shows_each_event_once_and_says_what_it_left_out(self):
        browser = Browser(CHROMIUM)
        self.addCleanup(browser.end)
        self.addCleanup(self.remove, "LIVE")
        browser.show(f"http://{self.web.place}/live?blade=LIVE")
        state = "document.querySelector('[role=status]').textContent"
        ids = "[...document.querySelectorAll('tbody [data-name=id]')].map((cell) => Number(cell.textContent))"
        browser.await_true(f"{state}.endsWith('nothing has come yet')", "the first look")
        for step in range(5):  # more than the page keeps in the time that an archive tells of again
            self.send_live("LIVE", 120 * step + 1, 120 * step + 120)
            time.sleep(0.5)
        browser.await_true(f"{state}.endsWith('; 600 events so far')", "600 events")
        self.assertEqual(browser.run(ids), list(range(600, 300, -1)))
        browser.await_true("document.querySelectorAll('tr.fresh').length === 0", "a look at which nothing has come")
        time.sleep(5)
        self.assertTrue(browser.run(f"{state}.endsWith('; 600 events so far')"), browser.run(state))
        self.assertEqual(browser.run("document.querySelectorAll('tr.fresh').length"), 0)
        self.send_live("LIVE", 601, 2600)
        browser.await_true(f"{ids}[0] === 2600", "the newest event")
        self.assertEqual(browser.run(ids), list(range(2600, 2300, -1)))
        told = browser.run(state)
        shown, left = (int(text.replace(",", "")) for text in
                       re.search(r"; ([\d,]+) events so far; ([\d,]+) more came than could be looked at$", told).groups())
        self.assertGreater(left, 0)
        # A server counts by the clock, and what is committed later than looked at bears an earlier time.
        self.assertIn(shown + left, [2600] if hasattr(self, "database") else range(2000, 2601), told)
        self.assertEqual(browser.complaints(), [])

    @unittest.skipUnless(CHROMIUM, "no chromium here: what a browser makes of the live page is not tested")
    def test_live_page_keeps_its_sum_where_more_came_than_could_be_counted(self):
        browser = Browser(CHROMIUM)
        self.addCleanup(browser.end)
        self.addCleanup(self.remove, "SUM")
        browser.show(f"http://{self.web.place}/live?blade=SUM")
        state = "document.querySelector('[role=status]').textContent"
        browser.await_true(f"{state}.endsWith('nothing has come yet')", "the first look")
        # What the web answers, with other sums: nothing but a sum, all events, nothing, all again.
        browser.run("""
            window.sums = [5, 3, null, 4];
            window.seen = [];
            const real = window.fetch;
            window.fetch = async (...question) => {
              const answer = await (await real(...question)).json();
              if (answer.events?.length > 0 && window.seen.length === 0) window.seen = answer.events;
              if (window.seen.length > 0 && window.sums.length > 0) {
                answer.events = window.sums.length % 2 === 0 ? [] : window.seen;
                answer.skipped = window.sums.shift();
              }
              return new Response(JSON.stringify(answer));
            };
            true""")
        self.send_live("SUM", 1, 2)
        browser.await_true(f"{state}.endsWith('; 0 events so far; 5 more came than could be looked at')", "a sum alone")
        browser.await_true(f"{state}.endsWith('; 2 events so far; over 12 more came than could be looked at')", "the sum of three answers")
        self.assertEqual(browser.run("document.querySelectorAll('tbody tr').length"), 2)
