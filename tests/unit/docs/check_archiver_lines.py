#!/usr/bin/env python3
"""Every line that the archiver can print stands in the operators' table of docs/operations.md.

Usage: check_archiver_lines.py SOURCE_ROOT"""
import pathlib
import re
import sys

CALL = re.compile(r"\b(?:say_?|callbacks_\.say|end|refuse|giveUp)\s*\((?:[^;\"]|\"(?:[^\"\\]|\\.)*\")*;")
LITERAL = re.compile(r'"((?:[^"\\]|\\.)*)"')
RETURNED = re.compile(r"return ((?:[^;\"]|\"(?:[^\"\\]|\\.)*\")*);")


def spaced(text):
    return re.sub(r"\s+", " ", text)


def lines_of(root):
    """The telling part, the longest text, of each line that a source can say."""
    for source in sorted((root / "tools/evarchiver").glob("*.cpp")):
        text = source.read_text()
        statements = CALL.findall(text)
        if source.name == "admission.cpp":
            enter = text[text.index("Admission::enter") :]
            statements += [match for match in RETURNED.findall(enter)]
        for statement in statements:
            literals = [literal.strip(" :,;()") for literal in LITERAL.findall(statement)]
            longest = max(literals, key=len, default="")
            if len(longest) > 3:
                yield source.name, longest


def main():
    root = pathlib.Path(sys.argv[1])
    page = (root / "docs/operations.md").read_text()
    table = spaced(page[page.index("### What the lines mean") : page.index("### Figures")])
    lines = list(lines_of(root))
    if len(lines) < 25:
        sys.exit(f"only {len(lines)} lines found in the sources: the search is out of date")
    missing = [f"{name}: {line}" for name, line in lines if spaced(line) not in table]
    if missing:
        sys.exit("not explained in docs/operations.md:\n  " + "\n  ".join(missing))
    print(f"{len(lines)} lines explained")


main()
