#!/usr/bin/env python3
"""Prints the commands by which the second compiler judges each file by itself, a zero byte behind each.

judging_commands.py FOLDER      a build folder with compile_commands.json

The large libraries that files include are most of what such a file takes. They are parsed once for each set
of them that occurs, into FOLDER/parsed; a file gets those that it includes, by headers of ours or itself, and
no other: what it forgot to include is still missing.
"""
import functools
import json
import os
import re
import shlex
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor

LARGE = ("CLI/CLI.hpp", "nlohmann/json.hpp", "asio.hpp")
INCLUDE = re.compile(r'^\s*#\s*include\s*[<"]([^>"]+)[>"]', re.MULTILINE)
SOURCES = os.getcwd()


@functools.cache
def large_headers(path, directories):
    """Those of LARGE that a file includes, by headers of ours or itself."""
    found = set()
    with open(path, encoding="utf-8", errors="replace") as file:
        names = INCLUDE.findall(file.read())
    for name in names:
        if name in LARGE:
            found.add(name)
            continue
        for directory in (os.path.dirname(path), *directories):
            header = os.path.normpath(os.path.join(directory, name))
            if os.path.isfile(header):
                found |= large_headers(header, directories)
                break
    return frozenset(found)


def parse(folder, headers, command):
    """Parses headers as the command would; gives the file that holds the result."""
    base = os.path.join(folder, "_".join(os.path.basename(name).partition(".")[0] for name in headers))
    with open(base + ".h", "w", encoding="utf-8") as file:
        file.writelines(f"#include <{name}>\n" for name in headers)
    words = [word for word in command if not word.startswith("-DEV")]
    subprocess.run(words + ["-x", "c++-header", base + ".h", "-o", base + ".pch"], check=True)
    return base + ".pch"


def main():
    build = os.path.abspath(sys.argv[1])
    folder = os.path.join(build, "parsed")
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(build, "compile_commands.json"), encoding="utf-8") as file:
        entries = json.load(file)
    judged = []
    for entry in entries:
        command = re.sub(r"^\S*ccache ", "", entry["command"])
        command, changes = re.subn(r" -o \S+ -c \S+$", "", command)
        assert changes == 1, entry["command"]
        words = shlex.split(command)
        own = tuple(word[2:] for word in words if word.startswith("-I" + SOURCES))
        headers = large_headers(entry["file"], own)
        judged.append((entry, words, tuple(name for name in LARGE if name in headers)))
    first = {headers: words for _, words, headers in reversed(judged) if headers}
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        parsed = dict(zip(first, pool.map(lambda headers: parse(folder, headers, first[headers]), first)))
    for number, (entry, words, headers) in enumerate(judged, 1):
        words = words + (["-include-pch", parsed[headers]] if headers else [])
        says = f"[{number}/{len(judged)}, clang] {os.path.relpath(entry['file'])}"
        print(f"cd {shlex.quote(entry['directory'])} && {shlex.join(words)} -fsyntax-only "
              f"{shlex.quote(entry['file'])} && echo {shlex.quote(says)}", end="\0")


main()
