"""The pages against the programs' own help: every subcommand and option is on the page, and no other one.

Usage: pages_test.py DIRECTORY_OF_THE_PROGRAMS
"""

import os
import pathlib
import re
import subprocess
import sys
import unittest

PROGRAMS = pathlib.Path(sys.argv.pop(1))
PAGES = pathlib.Path(__file__).resolve().parents[3] / "docs" / "man"
# It takes a key and nothing else.
WITHOUT_HELP = {"emp"}
# What evctl becomes for archives on servers: nobody calls it.
WITHOUT_PAGE = {"evctl-pg"}
# Commands of their own, which the program's help does not list.
COMMANDS_APART = {"evarchiver": ["db"]}

# What the pages refer to in other packages.
PAGES_OF_OTHERS = {("abort", "3"), ("flock", "2"), ("journalctl", "1"), ("openssl", "1"), ("send", "2")}


def output(*command):
    done = subprocess.run(command, capture_output=True, text=True, timeout=60, check=True,
                          env={**os.environ, "COLUMNS": "120"})
    return done.stdout


def help_of(command):
    """The help of a command and of all below it, by command."""
    text = output(*command, "--help")
    helps = {command: text}
    section = re.search(r"^Subcommands:\n((?:  .*\n)*)", text, re.M)
    for word in re.findall(r"^  ([a-z][\w-]*)", section.group(1), re.M) if section else []:
        helps.update(help_of((*command, word)))
    return helps


def options_in(text):
    return set(re.findall(r"(?<![\w-])--[a-z][a-z0-9-]*[a-z0-9]", text))


def declared_in(text):
    """The options that a help lists, not those that it talks of."""
    return set().union(*(options_in(re.split(r"  +", line.strip())[0])
                         for line in text.splitlines() if re.match(r" +-", line)))


def page_text(page):
    text = re.sub(r".\x08", "", output("mandoc", "-T", "utf8", "-O", "width=1000", page))
    text = re.sub("[\u2010\u2011\u2212]", "-", text)
    return re.sub(r"-\n\s*", "-", text)


class PagesTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.pages = {page.stem: page_text(page) for page in PAGES.glob("*.[18]")}
        cls.helps = {name: help_of((str(PROGRAMS / name),)) for name in cls.pages if name not in WITHOUT_HELP}
        for name, words in COMMANDS_APART.items():
            for word in words:
                cls.helps[name].update(help_of((str(PROGRAMS / name), word)))
        cls.declared = {name: set().union(*map(declared_in, helps.values())) for name, helps in cls.helps.items()}

    def test_every_program_with_a_help_has_a_page(self):
        shown = {file.name for file in PROGRAMS.iterdir() if file.is_file() and os.access(file, os.X_OK)}
        self.assertEqual(shown - set(self.pages), WITHOUT_PAGE & shown)
        self.assertGreaterEqual(len(self.helps), 5)

    def test_every_subcommand_is_on_its_page(self):
        for name, helps in self.helps.items():
            for _, *words in helps:
                pattern = r"\b" + r"\b[\s\S]*\b".join(words) + r"\b"
                self.assertTrue(re.search(pattern, self.pages[name]), f"{name}: {' '.join(words)}")

    def test_every_option_is_on_its_page(self):
        for name, declared in self.declared.items():
            self.assertGreater(len(declared), 2, name)
            self.assertEqual(declared - options_in(self.pages[name]), set(), name)

    def test_no_page_has_an_option_that_no_program_has(self):
        known = set().union(*self.declared.values())
        for name, text in self.pages.items():
            self.assertEqual(options_in(text) - known, set(), name)

    def test_pages_are_well_formed(self):
        done = subprocess.run(["mandoc", "-T", "lint", *sorted(PAGES.iterdir())],
                              capture_output=True, text=True, timeout=60)
        # Which other pages are installed here says nothing of these.
        elsewhere = re.compile(r"referenced manual not found|outdated mandoc\.db lacks")
        said = (done.stdout + done.stderr).splitlines()
        self.assertEqual([line for line in said if not elsewhere.search(line)], [])

    def test_every_reference_leads_to_a_page(self):
        own = {(page.stem, page.suffix[1:]) for page in PAGES.iterdir()}
        for page in PAGES.iterdir():
            named = set(re.findall(r"^\.(?:BR|Xr) ([\w.@-]+) \(?(\d)\)?", page.read_text(), re.M))
            self.assertEqual(named - own - PAGES_OF_OTHERS, set(), page.name)


if __name__ == "__main__":
    unittest.main()
