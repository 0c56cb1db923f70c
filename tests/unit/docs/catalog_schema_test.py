"""The schema of the event catalogue, which editors take, and its reader: both take the catalogues that are
shipped, and both refuse the same mistakes.

Usage: catalog_schema_test.py EVCTL
"""

import copy
import json
import pathlib
import subprocess
import sys
import tempfile
import unittest

import jsonschema

EVCTL = pathlib.Path(sys.argv.pop(1)).resolve()
ROOT = pathlib.Path(__file__).resolve().parents[3]
SHARE = ROOT / "share" / "event-manager"
SCHEMA = json.loads((SHARE / "catalog.schema.json").read_text())
SHIPPED = sorted([*(SHARE / "catalog.d").glob("*.json"), *(ROOT / "demo" / "catalog.d").glob("*.json")])

# Everything that a catalogue can say.
WHOLE = {
    "$schema": "catalog.schema.json", "note": "n", "source": "volmgr",
    "events": [{
        "id": 1, "lastId": 2, "idVersion": 3, "name": "n", "severity": "warning", "text": "t {f}", "advice": "a",
        "note": "n",
        "fields": [{"name": "f", "offset": 0, "width": 4, "type": "signed", "order": "either", "unit": "u",
                    "names": {"-1": "none"}, "note": "n"}],
    }],
}


def changed(change):
    document = copy.deepcopy(WHOLE)
    change(document, document["events"][0], document["events"][0]["fields"][0])
    return document


# What is wrong in each; the first word is the name of its file.
MISTAKES = {
    "no-object": [],
    "no-source": changed(lambda whole, event, field: whole.pop("source")),
    "no-events": changed(lambda whole, event, field: whole.pop("events")),
    "unknown-member": changed(lambda whole, event, field: whole.update(events2=[])),
    "source-of-two-bytes": changed(lambda whole, event, field: whole.update(source=256)),
    "no-id": changed(lambda whole, event, field: event.pop("id")),
    "id-as-text": changed(lambda whole, event, field: event.update(id="1")),
    "id-of-three-bytes": changed(lambda whole, event, field: event.update(id=65536)),
    "version-of-two-bytes": changed(lambda whole, event, field: event.update(idVersion=256)),
    "no-text": changed(lambda whole, event, field: event.pop("text")),
    "empty-text": changed(lambda whole, event, field: event.update(text="")),
    "endless-text": changed(lambda whole, event, field: event.update(text="x" * 4097)),
    "fields-without-end": changed(lambda whole, event, field: event.update(
        text="t", fields=[{"name": str(number), "offset": 0, "width": 1} for number in range(3849)])),
    "name-that-is-a-number": changed(lambda whole, event, field: event.update(name="40")),
    "name-that-is-a-hexadecimal-number": changed(lambda whole, event, field: event.update(name="0X1f")),
    "name-that-is-a-number-without-end": changed(lambda whole, event, field: event.update(name="9" * 40)),
    "severity": changed(lambda whole, event, field: event.update(severity="loud")),
    "unknown-member-of-event": changed(lambda whole, event, field: event.update(advise="a")),
    "no-width": changed(lambda whole, event, field: field.pop("width")),
    "width-0": changed(lambda whole, event, field: field.update(width=0)),
    "width-too-large": changed(lambda whole, event, field: field.update(type="hex", width=3849)),
    "offset-negative": changed(lambda whole, event, field: field.update(offset=-1)),
    "offset-behind-all-data": changed(lambda whole, event, field: field.update(offset=3848)),
    "type": changed(lambda whole, event, field: field.update(type="float")),
    "order": changed(lambda whole, event, field: field.update(order="middle")),
    "name-of-no-number": changed(lambda whole, event, field: field.update(names={"x": "y"})),
    "unknown-member-of-field": changed(lambda whole, event, field: field.update(size=1)),
}


def finds_something(file):
    """Whether the reader finds something wrong in it alone: of two with the same event it does in the other."""
    done = subprocess.run([EVCTL, "catalog", "check", file], capture_output=True, text=True, timeout=60)
    return {0: False, 1: True}[done.returncode]


class CatalogSchemaTest(unittest.TestCase):
    def setUp(self):
        jsonschema.Draft7Validator.check_schema(SCHEMA)
        self.schema = jsonschema.Draft7Validator(SCHEMA)

    def test_shipped_catalogues_are_of_the_schema(self):
        self.assertGreaterEqual(len(SHIPPED), 3)
        for path in SHIPPED:
            self.assertEqual([error.message for error in self.schema.iter_errors(json.loads(path.read_text()))], [],
                             path)

    def test_reader_and_schema_take_and_refuse_the_same(self):
        with tempfile.TemporaryDirectory() as directory:
            for name, document in {"whole": WHOLE, **MISTAKES}.items():
                file = pathlib.Path(directory) / (name + ".json")
                file.write_text(json.dumps(document))
                self.assertEqual(self.schema.is_valid(document), name == "whole", name)
                self.assertEqual(finds_something(file), name != "whole", name)


if __name__ == "__main__":
    unittest.main()
