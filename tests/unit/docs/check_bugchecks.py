"""Compares the bug-checks of the sources with the table in docs/operations.md.

Usage: check_bugchecks.py PROJECT_DIRECTORY. Every text that the event manager hands to a bug-check
stands in the table, every text of the table is handed to one, and the functions named beside it
are named in the sources.
"""

import pathlib
import re
import sys

LITERAL = r'"((?:[^"\\]|\\.)*)"'


def read_sources(project):
    directory = pathlib.Path(project, "MPU", "emp")
    files = sorted(directory.rglob("*.cpp")) + sorted(directory.rglob("*.h"))
    return {file: file.read_text() for file in files}


def arguments(text, begin):
    """The arguments of the call whose opening parenthesis is at begin - 1."""
    depth, quoted, found, start, at = 1, False, [], begin, begin
    while depth:
        char = text[at]
        if quoted:
            at += 1 if char == "\\" else 0
            quoted = char != '"'
        elif char == '"':
            quoted = True
        elif char in "({[":
            depth += 1
        elif char in ")}]":
            depth -= 1
        if not quoted and (depth == 0 or depth == 1 and char == ","):
            found.append(text[start:at].strip())
            start = at + 1
        at += 1
    return found


def constants(sources):
    pattern = re.compile(r"constexpr char (\w+)\[\]\s*=\s*" + LITERAL + ";")
    return {name: text for source in sources.values() for name, text in pattern.findall(source)}


def texts_of_calls(sources, named, problems):
    """What is handed to EMP_BUGCHECK, and to empFault by name."""
    texts = set()
    for file, source in sources.items():
        if file.name in ("bugcheck.h", "bugcheck.cpp"):
            continue
        for call in re.finditer(r"\b(EMP_BUGCHECK|empFault)\(", source):
            given = arguments(source, call.end())
            text = given[1 if call.group(1) == "EMP_BUGCHECK" else 3]
            literal = re.fullmatch(LITERAL, text)
            if literal and literal.group(1) != "%s":
                texts.add(literal.group(1))
            elif text in named:
                texts.add(named[text])
            elif not literal:
                problems.append(f"{file}: a bug-check whose text is not to be found: {text}")
    return texts


def table_rows(project):
    document = pathlib.Path(project, "docs", "operations.md").read_text()
    section = document.split("\n## Bug-checks\n", 1)[1].split("\n## ", 1)[0]
    rows = {}
    for line in section.splitlines():
        cells = [cell.strip() for cell in line.strip("|").split("|")]
        if line.startswith("| `") and len(cells) == 4 and all(cells):
            rows[cells[0].strip("`")] = re.findall(r"`([^`]+)`", cells[1])
    return rows


def main():
    project = sys.argv[1]
    sources = read_sources(project)
    problems = []
    named = constants(sources)
    texts = texts_of_calls(sources, named, problems)
    # Some sites hand their text to a helper by the name of a constant.
    texts |= {text for text in named.values() if text.startswith("Linux ")}
    rows = table_rows(project)
    if len(texts) < 20:
        problems.append(f"only {len(texts)} texts found in the sources")
    problems += [f"not in the table: {text}" for text in sorted(texts - set(rows))]
    problems += [f"not in the sources: {text}" for text in sorted(set(rows) - texts)]
    code = "\n".join(sources.values())
    for text, functions in rows.items():
        problems += [
            f"{text}: no function {function}"
            for function in functions or ["at all"]
            if f'"{function}"' not in code and f" {function}(" not in code
        ]
    print("\n".join(problems))
    return 1 if problems else 0


sys.exit(main())
