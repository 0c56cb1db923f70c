"""The dissector of the blade's messages against the worked examples of docs/formats.md."""

import random
import struct
import unittest

from tshark import Tshark
from formats import names, table, worked_example

REQUEST, RESPONSE, EVENT, INQUIRY = (
    worked_example(name) for name in ("status request", "status response", "event", "inquiry"))
MESSAGE = worked_example("event message")
LINK = [(0, REQUEST), (1, RESPONSE), (0, EVENT), (0, INQUIRY)]


def mmsg(kind, body=b"", requestor=27, cont=0, protocol=8, recipients=(18,), code=0, handle=0):
    """A local message, written field by field."""
    words = sum(1 << endpoint for endpoint in recipients)
    header = struct.pack(">IIBBH", 0, 0, 14, 1, 64 + len(body))
    header += struct.pack(">BBHBBBB", protocol, 0, kind, requestor, cont, 0, 0)
    header += struct.pack(">IIII", words & 0xFFFFFFFF, words >> 32, 0, 0)
    return header + struct.pack(">II20x", code, handle) + body


class DissectorTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tshark = Tshark()
        cls.addClassCleanup(cls.tshark.close)

    def link_rows(self, pieces, *fields):
        return self.tshark.rows(self.tshark.tcp("link.pcap", pieces), *fields)

    def local_rows(self, messages, *fields):
        return self.tshark.rows(self.tshark.user0("local.pcap", messages), *fields)

    # --- The worked examples

    def test_event_message_shows_the_worked_example(self):
        self.assertEqual(
            self.local_rows([MESSAGE], "mmsg.mmsg_length", "mmsg.protocol", "mmsg.type_name", "mmsg.requestor",
                            "mmsg.recipient_loc", "empev.evType", "empev.evCategory", "empev.evId", "empev.text"),
            [[["229"], ["8"], ["log"], ["26"], ["27"], ["2"], ["3"], ["7"], ["fan 3 stopped"]]])

    def test_forwarded_event_shows_the_worked_example(self):
        self.assertEqual(
            self.link_rows([(0, EVENT)], "evlink.evArchiverMsgType", "empev.evEnclosureId", "empev.evBladeId",
                           "empev.evSlotId", "empev.evSequenceId", "empev.evTime", "empev.evStructLength",
                           "empev.evSource", "empev.text"),
            [[["1"], ["ENC-0001"], ["BLADE-A"], ["1"], ["1"], ["Jan  1, 2024 00:00:00.000000000 UTC"], ["13"],
              ["26"], ["fan 3 stopped"]]])

    def test_handshake_and_inquiry_show_the_worked_examples(self):
        self.assertEqual(
            self.link_rows(LINK, "evlink.evArchiverMsgType", "evlink.evArchiverMsgFlag", "evlink.evArchiverMsgHandle",
                           "evlink.evRandom", "evlink.tail", "empev.evSeqIdInquiry"),
            [[["6"], ["1"], ["1000"], [(b"ENC-0001" + bytes(16)).hex()], ["00000000"], []],
             [["6"], ["2"], ["1000"], [(b"ENC-0001" + bytes(16)).hex()], [], []],
             [["1"], ["1"], ["0"], [], [], []],
             [["2"], ["1"], ["1234"], [], [], ["41"]]])

    # --- The tables: every row is a field of that place and width, with the bytes that stand there.

    def check_table(self, element, heading, prefix, start, message, renamed={}):
        shown = {(field.get("name"), int(field.get("pos")), int(field.get("size"))): field
                 for field in element.iter("field")}
        base = min(int(field.get("pos")) for field in element.iter("field"))
        rows = table(heading)
        self.assertGreater(len(rows), 1)
        for name, offset, width in rows:
            name = renamed.get(name, prefix + name)
            width = len(message) - start - offset if width == "n" else int(width)
            if name is None:
                continue
            field = shown.get((name, base + start + offset, width))
            self.assertIsNotNone(field, f"{heading}: no {name} at {offset}, {width} bytes")
            expected = message[start + offset : start + offset + width]
            self.assertEqual(bytes.fromhex(field.get("value")), expected, name)

    def test_local_message_has_the_fields_of_its_tables(self):
        element = self.tshark.protocols(self.tshark.user0("tables.pcap", [MESSAGE]))[0][0]
        self.check_table(element, "Local message", "mmsg.", 0, MESSAGE, {
            "mmch_lh.flink": "mmsg.flink", "mmch_lh.blink": "mmsg.blink",
            "opcode.request.protocol": "mmsg.protocol", "opcode.request.type": "mmsg.type",
            # Fields of 4 bytes each, not one of 12 and one of 8.
            "general_use1` to `general_use3": None, "timestamp": None})
        self.check_table(element, "Event message", "empev.", 64, MESSAGE, {"data": "empev.evStruct"})

    def test_link_messages_have_the_fields_of_their_tables(self):
        packets = self.tshark.protocols(self.tshark.tcp("tables.pcap", LINK))
        elements = [packet[0] for packet in packets if packet]
        for element, (_, message) in zip(elements, LINK, strict=True):
            self.check_table(element, "Archiver header", "evlink.", 0, message)
        log = {field: f"empev.{field}"
               for field in ("evEnclosureId", "evBladeId", "evSlotId", "evInstanceNumber", "evStructLength")}
        self.check_table(elements[0], "Status request", "evlink.", 16, REQUEST, log)
        self.check_table(elements[1], "Status response", "evlink.", 16, RESPONSE)
        self.check_table(elements[2], "Forwarded event", "empev.", 16, EVENT, {"data": "empev.evStruct"})
        self.check_table(elements[3], "Relayed inquiry", "empev.", 16, INQUIRY)

    # --- The names

    def test_names_are_those_of_the_tools(self):
        shown = {}
        for line in self.tshark.run("-G", "values").splitlines():
            kind, *row = line.split("\t")
            if kind == "V" and row[0].startswith(("mmsg.", "evlink.", "empev.")):
                shown.setdefault(row[0], {})[int(row[1], 0)] = row[2]
        for field, array in {
                "mmsg.requestor": "ENDPOINTS", "mmsg.protocol": "PROTOCOLS", "empev.evType": "EVENT_TYPES",
                "empev.evCategory": "CATEGORIES", "empev.evInquiryType": "INQUIRY_TYPES",
                "evlink.evArchiverMsgType": "MESSAGE_TYPES", "mmsg.return_code": "RESPONSES"}.items():
            expected = names(array) | ({0: "none"} if array == "RESPONSES" else {})
            self.assertGreater(len(expected), 2)
            self.assertEqual(shown[field], expected)

    # --- Local messages of every kind

    def test_requests_and_replies_show_their_bodies(self):
        address = struct.pack(">4BH2x", 10, 1, 0, 17, 4711)
        status = struct.pack(">4BHHIII", 10, 1, 0, 17, 4711, 1, 2, 3, 4)
        rows = self.local_rows(
            [mmsg(3, address), mmsg(3, bytes(8), cont=0x40, code=1), mmsg(5), mmsg(5, status, cont=0x40, code=1),
             mmsg(2, INQUIRY[16:], cont=0x80), mmsg(2, EVENT[16:], cont=0x40, handle=7), mmsg(7, EVENT[16:])],
            "mmsg.type_name", "mmsg.response", "mmsg.evArchiverIpAddress", "mmsg.evArchiverConnectionAttempt",
            "mmsg.other_blade", "empev.evSeqIdInquiry", "empev.evSequenceId")
        self.assertEqual(rows, [
            [["set_event_archiver"], ["0"], ["10.1.0.17"], [], ["0"], [], []],
            [["set_event_archiver"], ["1"], [], [], ["0"], [], []],
            [["get_event_manager_status"], ["0"], [], [], ["0"], [], []],
            [["get_event_manager_status"], ["1"], ["10.1.0.17"], ["4"], ["0"], [], []],
            [["inquiry"], ["0"], [], [], ["1"], ["41"], []],
            [["inquiry"], ["1"], [], [], ["0"], [], ["1"]],
            [["alternate_log"], ["0"], [], [], ["0"], [], ["1"]]])

    def test_recipients_of_both_words_are_listed(self):
        self.assertEqual(self.local_rows([mmsg(1, bytes(152), recipients=(0, 31, 32, 33, 63))], "mmsg.recipient_loc"),
                         [[["0", "31", "32", "33", "63"]]])

    def test_startup_notice_is_named(self):
        rows = self.local_rows([mmsg(1, protocol=12)], "mmsg.type_name", "mmsg.recipient_loc", "_ws.col.Info")
        self.assertEqual(rows, [[["notify_init_complete"], ["18"],
                                 ["eventlog > startup: startup notify_init_complete"]]])

    def test_wrong_data_length_is_a_finding_once_the_event_is_stamped(self):
        rows = self.local_rows([mmsg(1, MESSAGE[64:], requestor=26), mmsg(1, MESSAGE[64:], requestor=27)],
                               "_ws.expert.message")
        self.assertEqual(rows, [[[]], [["evStructLength is not the number of data bytes"]]])

    def test_alternate_event_of_a_process_is_not_stamped_yet(self):
        rows = self.local_rows([mmsg(7, MESSAGE[64:], requestor=26), mmsg(7, MESSAGE[64:], requestor=27)],
                               "_ws.expert.message", "_ws.col.Info")
        self.assertEqual(rows[0], [[], ["environ > startup: eventmgr alternate_log, warning, id 7"]])
        self.assertEqual(rows[1][0], ["evStructLength is not the number of data bytes"])

    # --- Streams

    def test_messages_in_pieces_are_put_together(self):
        stream = EVENT + INQUIRY + EVENT
        sizes = (1, 15, 17, 100)
        capture = self.tshark.tcp("pieces.pcap", *[
            [(0, EVENT)] + [(0, stream[begin : begin + size]) for begin in range(0, len(stream), size)]
            for size in sizes])
        shown = {}
        for connection, kinds in self.tshark.rows(capture, "tcp.stream", "evlink.evArchiverMsgType"):
            shown.setdefault(connection[0], []).extend(kinds)
        self.assertEqual(list(shown.values()), [["1", "1", "2", "1"]] * len(sizes))

    def test_messages_in_one_packet_are_told_apart(self):
        rows = self.link_rows([(0, REQUEST + EVENT + EVENT)], "evlink.evArchiverMsgType", "empev.text")
        self.assertEqual(rows, [[["6", "1", "1"], ["fan 3 stopped"] * 2]])
        capture = self.tshark.tcp("local.pcap", [(0, MESSAGE * 3), (1, mmsg(5))])
        self.assertEqual(self.tshark.rows(capture, "mmsg.mmsg_length"), [[["229"] * 3], [["64"]]])

    # --- Damage

    def test_lengths_outside_the_limits_are_findings(self):
        bad = [MESSAGE[:10] + struct.pack(">H", length) + MESSAGE[12:] for length in (0, 63, 4065, 65535)]
        self.assertEqual(self.local_rows(bad, "_ws.expert.message"),
                         [[["mmsg_length outside 64 to 4064: the stream cannot be followed"]]] * len(bad))

    def test_stream_that_is_none_of_the_links_is_a_finding(self):
        rows = self.link_rows([(0, EVENT), (0, b"\0\2" + EVENT[2:])], "_ws.expert.message", "evlink.body")
        self.assertEqual(rows[1][0], ["no header of the archiver link: the stream cannot be followed"])
        self.assertEqual(len(rows[1][1][0]), 2 * len(EVENT))

    def test_short_body_is_a_finding_and_unknown_type_none(self):
        short = struct.pack(">4HII", 1, 4, 1, 1, 0, 0) + bytes(4)
        unknown = struct.pack(">4HII", 1, 4, 9, 3, 0, 0) + bytes(4)
        rows = self.link_rows([(0, EVENT), (0, short), (0, unknown)], "_ws.expert.message", "evlink.body")
        self.assertEqual(rows[1:], [[["the body is shorter than its type needs"], ["00000000"]], [[], ["00000000"]]])

    def test_tail_of_a_status_request_that_is_not_zero_is_a_finding(self):
        rows = self.link_rows([(0, REQUEST[:-1] + b"\1")], "_ws.expert.message")
        self.assertEqual(rows, [[["the bytes behind a status request are not four zeros"]]])

    def test_every_truncation_is_shown_without_an_error(self):
        messages = [MESSAGE[:length] for length in range(1, len(MESSAGE))]
        rows = self.local_rows(messages, "mmsg.body", "_ws.expert.message", "_ws.malformed")
        self.assertEqual(rows, [[[message.hex()], ["the capture does not hold the whole message"], []]
                                for message in messages])

    def test_connection_may_end_inside_a_message(self):
        capture = self.tshark.tcp("cut.pcap", [(0, EVENT[:20]), (0, EVENT[20:] + EVENT[:50])])
        self.assertEqual(self.tshark.rows(capture, "empev.text", "_ws.lua.error"), [[["fan 3 stopped"], []]])

    def test_random_damage_is_shown_without_an_error(self):
        chance = random.Random(1)

        def damaged(message):
            bytes_ = bytearray(message)
            for _ in range(chance.randrange(1, 9)):
                bytes_[chance.randrange(min(len(bytes_), 80))] = chance.choice((0, 1, 0x7F, 0x80, 0xFF))
            return bytes(bytes_[: chance.randrange(16, len(bytes_) + 1)])

        local = self.tshark.user0("damage.pcap", [damaged(MESSAGE) for _ in range(1000)])
        link = self.tshark.tcp("damage-link.pcap", [(chance.randrange(2), damaged(chance.choice(LINK)[1]))
                                                    for _ in range(1000)])
        for capture, at_least in ((local, 1000), (link, 100)):
            rows = self.tshark.rows(capture, "frame.number", "_ws.lua.error", "_ws.malformed")
            self.assertGreaterEqual(len(rows), at_least)
            self.assertEqual([row for row in rows if row[1] or row[2]], [])

    def test_other_connections_are_left_alone(self):
        capture = self.tshark.tcp("other.pcap", [(0, b"GET / HTTP/1.0\r\nHost: localhost\r\n" + bytes(80)),
                                                 (1, bytes(200))])
        self.assertEqual(self.tshark.rows(capture, "frame.number"), [])


if __name__ == "__main__":
    unittest.main()
