"""The Kaitai description of the log file against worked examples, tables and golden files."""

import pathlib
import re
import sys
import unittest

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "support"))

from formats import PROJECT, golden, names, table, worked_example  # noqa: E402
from kaitai import Description, Stream  # noqa: E402

DESCRIPTION = Description(PROJECT / "docs" / "kaitai" / "kelta_eventlog.ksy")
CRC_TABLE = []
for remainder in range(256):
    for _ in range(8):
        remainder = remainder >> 1 ^ (0x82F63B78 if remainder & 1 else 0)
    CRC_TABLE.append(remainder)


def checksum(data):
    crc = 0xFFFFFFFF
    for byte in data:
        crc = crc >> 8 ^ CRC_TABLE[(crc ^ byte) & 0xFF]
    return int.from_bytes((crc ^ 0xFFFFFFFF).to_bytes(4, "little"), "big")


class Log:
    """A log file as the description sees it."""

    def __init__(self, content):
        self.content = content
        ring = DESCRIPTION.parse(None, Stream(content)).ring
        self.outline, self.records, offset = [], [], 0
        for entry in ring.entries:
            if entry.record is None:
                self.outline.append(f"gap {len(entry.gap.bytes)}")
                offset += len(entry.gap.bytes)
                continue
            record = entry.record
            self.records.append((offset, record))
            self.outline.append(f"dummy {record.len_data}" if record.is_dummy else record.sequence_id)
            offset += 160 + len(next(data for data in (record.data, record.unused, record.unused_to_end)
                                     if data is not None))
        self.length = offset


class KaitaiTest(unittest.TestCase):
    def test_record_is_the_worked_example(self):
        record = DESCRIPTION.parse("record", Stream(worked_example("record")))
        self.assertEqual(
            (record.version, record.crc_checksum, record.enclosure_id, record.blade_id, record.slot_id,
             record.instance_number, record.sequence_id, record.time, record.len_data, record.source,
             record.event_type, record.category, record.id_version, record.id, record.data, record.unused),
            (1, 0x250831DA, "ENC-0001", "BLADE-A", 1, 0, 1, 1704067200, 13, 26, 2, 3, 1, 7, b"fan 3 stopped", None))

    def test_fresh_log_is_the_worked_example(self):
        self.assertEqual(Log(worked_example("fresh log")).outline, [0, "dummy 65535"])

    def test_record_has_the_fields_of_its_table(self):
        record = DESCRIPTION.parse("record", Stream(worked_example("record")))
        fields = [field["id"] for field in DESCRIPTION.root["types"]["record"]["seq"] if field["id"] in record.spans]
        rows = table("Record")
        self.assertEqual(len(fields), len(rows))
        for field, (name, offset, width) in zip(fields, rows):
            width = 13 if width == "n" else int(width)
            self.assertEqual(record.spans[field], (offset, offset + width), f"{field}, {name}")
            known = {"evStructLength": "len_data", "evType": "event_type"}.get(name)
            self.assertEqual(field.replace("_", ""), (known or re.sub("^ev(Rd)?", "", name)).replace("_", "").lower())

    def test_names_are_those_of_the_tools(self):
        for enum, array in {"endpoint": "ENDPOINTS", "event_type": "EVENT_TYPES", "category": "CATEGORIES"}.items():
            self.assertEqual(DESCRIPTION.root["enums"][enum], names(array))

    def test_golden_logs_are_shown_record_by_record(self):
        self.assertEqual(Log(golden("fresh.log.txt")).outline, [0, "dummy 65535"])
        self.assertEqual(Log(golden("events.log.txt")).outline, [0, 1, 2, 3, 4, 5, "dummy 65535"])
        self.assertEqual(Log(golden("cleared.log.txt")).outline, [0, 1, "dummy 65535"])
        newer, older = range(0x100008F, 0x1000093), range(0xFFFF02, 0x100008F)
        self.assertEqual(Log(golden("wrapped.log.txt")).outline, [*newer, "gap 228", *older, "dummy 448"])

    def test_every_record_of_the_golden_logs_has_its_checksum_and_every_byte_is_shown(self):
        for name in ("fresh", "events", "cleared", "wrapped"):
            log = Log(golden(f"{name}.log.txt"))
            self.assertEqual(log.length, 1600000)
            for offset, record in log.records:
                end = offset + 160 + (0 if record.is_dummy else record.len_data)
                self.assertEqual(record.crc_checksum, checksum(log.content[offset + 8 : end]), f"{name} at {offset}")

    def test_surplus_behind_the_ring_is_ignored(self):
        self.assertEqual(Log(golden("events.log.txt") + worked_example("record")).outline,
                         [0, 1, 2, 3, 4, 5, "dummy 65535"])

    def test_bytes_that_form_no_record_are_a_gap(self):
        record = worked_example("record")
        for at, value in ((0, 0), (2, 2), (154, 35), (152, 0x10)):
            damaged = record[:at] + bytes([value]) + record[at + 1 :]
            self.assertEqual(Log(damaged).outline, ["gap 173"], at)
            self.assertEqual(Log(record + damaged + record).outline, [1, "gap 173", 1], at)

    def test_file_without_room_for_a_header_is_a_gap(self):
        self.assertEqual(Log(worked_example("record")[:159]).outline, ["gap 159"])
        self.assertEqual(Log(b"").outline, [])


if __name__ == "__main__":
    unittest.main()
