"""What tests in Python take from the sources: worked examples, tables of bytes, names, golden files."""

import pathlib
import re

PROJECT = pathlib.Path(__file__).resolve().parents[2]
FORMATS = (PROJECT / "docs" / "formats.md").read_text()


def worked_example(name):
    """The bytes of the hex dump behind the comment "example: name" in docs/formats.md."""
    dump = FORMATS.split(f"<!-- example: {name} -->\n```\n", 1)[1].split("```", 1)[0]
    return b"".join(bytes.fromhex(line[4:]) for line in dump.splitlines())


def table(heading):
    """The rows (field, offset, width) of the first table below a heading; width "n": to the end."""
    section = re.split(rf"\n#+ {re.escape(heading)}\n", FORMATS, maxsplit=1)[1].split("\n#", 1)[0]
    rows = re.findall(r"^\| (\d+) \|(?: \d+ \|)? (\d+|n) \| (.*?) \|", section, re.M)
    return [(field.strip("`"), int(offset), width) for offset, width, field in rows]


def names(array):
    """{ number: short name } of a table in tools/common/names.cpp."""
    source = (PROJECT / "tools" / "common" / "names.cpp").read_text()
    headers = "".join(path.read_text() for path in (PROJECT / "include").glob("*.h"))
    numbers = dict(re.findall(r"^\s+(\w+_E_\w+) =\s+(\d+),", headers, re.M))
    rows = re.search(rf"EnumName {array}\[\] = \{{\n(.*?)\n\}};", source, re.S).group(1)
    return {int(numbers[full]): brief for full, brief in re.findall(r'NAME\((\w+),\s*"(\w+)"\)', rows)}


def golden(name):
    """The bytes of a file of tests/golden."""
    size, *runs = (PROJECT / "tests" / "golden" / name).read_text().splitlines()
    content = bytearray(int(size.split()[1]))
    for run in runs:
        offset, data = run.split()
        data = bytes.fromhex(data)
        content[int(offset) : int(offset) + len(data)] = data
    return bytes(content)
