"""Interprets the part of the Kaitai language that docs/kaitai uses; anything else is an error."""

import re

import yaml

WIDTHS = {"u1": 1, "u2": 2, "u4": 4}
FIELD_KEYS = {"id", "type", "size", "size-eos", "contents", "encoding", "enum", "if", "repeat", "repeat-until", "doc"}
INSTANCE_KEYS = {"pos", "type", "value", "if", "doc"}


class Stream:
    """What an expression knows as _io; numbers are big-endian."""

    def __init__(self, data):
        self.data, self.pos = data, 0
        self.size = len(data)

    @property
    def eof(self):
        return self.pos >= self.size

    def take(self, size):
        if self.size - self.pos < size:
            raise EOFError(f"{size} bytes wanted at {self.pos} of {self.size}")
        self.pos += size
        return self.data[self.pos - size : self.pos]


class EnumValue(int):
    """A number that has a name, as an expression's ::name."""


def python(expression):
    """An expression of Kaitai as one of Python."""
    expression = re.sub(r"(\w+)::(\w+)", r'_enum("\1", "\2")', str(expression))
    choice = re.fullmatch(r"(.*?) \? (.*?) : (.*)", expression)
    return f"({choice[2]}) if ({choice[1]}) else ({choice[3]})" if choice else expression


class Object:
    """One parsed instance of a type; its fields are attributes, `spans` their (begin, end)."""

    def __init__(self, description, kind, stream):
        self._description, self._stream = description, stream
        self._instances = kind.get("instances", {})
        self.spans = {}
        for field in kind["seq"]:
            self._read_field(field)

    def __getattr__(self, name):
        if name.startswith("_") or name not in self._instances:
            raise AttributeError(name)
        value = self._read_instance(self._instances[name])
        setattr(self, name, value)  # once, as the compiler's parsers do
        return value

    def _evaluate(self, expression, **extra):
        class Names(dict):
            def __missing__(names, name):
                return getattr(self, name)

        names = Names(_io=self._stream, _enum=self._description.enum_value, **extra)
        return eval(compile(python(expression), str(expression), "eval"), {"__builtins__": {}}, names)

    def _read_instance(self, instance):
        assert set(instance) <= INSTANCE_KEYS, instance
        if not self._evaluate(instance.get("if", True)):
            return None
        if "value" in instance:
            return self._evaluate(instance["value"])
        saved = self._stream.pos
        self._stream.pos = self._evaluate(instance["pos"])
        try:
            return self._read_value(instance)
        finally:
            self._stream.pos = saved

    def _read_field(self, field):
        assert set(field) <= FIELD_KEYS, field
        if not self._evaluate(field.get("if", True)):
            setattr(self, field["id"], None)
            return
        begin = self._stream.pos
        repeat = field.get("repeat")
        setattr(self, field["id"], self._read_list(field, repeat) if repeat else self._read_value(field))
        self.spans[field["id"]] = begin, self._stream.pos

    def _read_list(self, field, repeat):
        assert repeat in ("eos", "until"), repeat
        values = []
        while repeat == "until" or not self._stream.eof:
            values.append(self._read_value(field))
            if repeat == "until" and self._evaluate(field["repeat-until"], _=values[-1]):
                break
        return values

    def _read_value(self, field):
        kind = field.get("type")
        if "contents" in field:
            expected = bytes(field["contents"])
            found = self._stream.take(len(expected))
            assert found == expected, found
            return found
        if kind in WIDTHS:
            number = int.from_bytes(self._stream.take(WIDTHS[kind]), "big")
            return EnumValue(number) if "enum" in field else number
        if field.get("size-eos"):
            data = self._stream.take(self._stream.size - self._stream.pos)
        elif "size" in field:
            data = self._stream.take(self._evaluate(field["size"]))
        else:
            return self._description.parse(kind, self._stream)
        if kind is None:
            return data
        if kind == "strz":
            return data.split(b"\0", 1)[0].decode(field["encoding"])
        return self._description.parse(kind, Stream(data))


class Description:
    def __init__(self, path):
        self.root = yaml.safe_load(path.read_text())
        assert self.root["meta"]["endian"] == "be"

    def enum_value(self, enum, name):
        return next(number for number, known in self.root["enums"][enum].items() if known == name)

    def parse(self, kind, stream):
        """Parses a type, None: the whole description."""
        return Object(self, self.root["types"][kind] if kind else self.root, stream)
