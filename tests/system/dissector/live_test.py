"""A blade and its archiver, recorded while they talk, as the dissector shows them.

Usage: live_test.py DIRECTORY_OF_THE_PROGRAMS
"""

import json
import os
import random
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

from tshark import DISSECTOR, Tshark
from formats import PROJECT, worked_example

PROGRAMS = sys.argv.pop(1)
DEADLINE = 60


class LiveTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory(prefix="live")
        self.addCleanup(directory.cleanup)
        self.directory = directory.name
        self.tshark = Tshark()
        self.addCleanup(self.tshark.close)

    def path(self, *names):
        return os.path.join(self.directory, *names)

    def start(self, command, line):
        """Starts a program that ends with the test. Returns the rest of the line that says it is up."""
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        self.addCleanup(process.stdout.close)
        self.addCleanup(self.stop, process)
        for said in process.stdout:
            if line in said:
                return said.split(line, 1)[1].strip()
        self.fail(f"{command} has ended")

    def stop(self, process):
        process.send_signal(signal.SIGTERM)
        process.wait(DEADLINE)

    def start_recorder(self, listen, to, capture):
        return self.start([sys.executable, str(DISSECTOR / "blade_record.py"), "--listen", listen, "--to", to,
                           self.path(capture)], "listening on")

    def evctl(self, *arguments):
        return subprocess.run([os.path.join(PROGRAMS, "evctl"), *arguments], check=True, timeout=DEADLINE,
                              capture_output=True, text=True).stdout

    def wait_until_archived(self, events):
        deadline = time.monotonic() + DEADLINE
        while time.monotonic() < deadline:
            logs = self.evctl("archive", "list", "--db", self.path("db"), "--json").splitlines()
            if sum(json.loads(log)["events"] for log in logs) == events:
                return
            time.sleep(0.05)
        self.fail(f"{events} events have not arrived")

    def test_recorded_exchange_is_shown_message_by_message(self):
        key = str(random.randrange(0x0B200000, 0x0B2FFFFF))
        self.start([os.path.join(PROGRAMS, "blade"), str(PROJECT / "demo" / "blade.conf"), "--base", self.directory,
                    "--slot", "0", "--key", key], "up:")
        archiver = self.start([os.path.join(PROGRAMS, "evarchiver"), "--listen", "127.0.0.1:0", "--db",
                               self.path("db"), "--progress", "0"], "listening on")
        recorder = self.start_recorder("127.0.0.1:0", archiver, "link.pcap")
        switch = self.path("slot0", "mmsg")
        os.mkdir(self.path("mmsg"))
        self.start_recorder(self.path("mmsg", "environ"), os.path.join(switch, "environ"), "local.pcap")

        self.evctl("archiver", "set", recorder, "--dir", switch)
        self.evctl("log", "--dir", self.path("mmsg"), "--source", "environ", "--category", "environmental",
                   "--type", "error", "--id", "8", "--text", "fan 3 stopped", "--count", "3")
        self.wait_until_archived(4)

        link = self.tshark.rows(self.path("link.pcap"), "tcp.dstport", "evlink.evArchiverMsgType",
                                "evlink.evArchiverMsgFlag", "empev.evSequenceId", "empev.evSource", "empev.text",
                                "_ws.expert.message")
        port, answered = [archiver.rpartition(":")[2]], link[1][0]
        self.assertEqual(link[:2], [[port, ["6"], ["1"], [], [], [], []], [answered, ["6"], ["2"], [], [], [], []]])
        self.assertNotEqual(port, answered)
        events = [[port, ["1"], ["1"], [str(id)], ["26"], ["fan 3 stopped"], []] for id in (1, 2, 3)]
        self.assertEqual(link[2:], [[port, ["1"], ["1"], ["0"], ["27"], [], []]] + events)

        local = self.tshark.rows(self.path("local.pcap"), "mmsg.requestor", "mmsg.recipient_loc", "mmsg.type_name",
                                 "empev.text", "_ws.expert.message")
        self.assertEqual(local, [[["26"], ["27"], ["log"], ["fan 3 stopped"], []]] * 3)

    def test_recorder_passes_messages_on_whole_and_ends_with_its_sides(self):
        message = worked_example("event message")
        with socket.socket(socket.AF_UNIX) as listener, socket.socket(socket.AF_UNIX) as client:
            listener.bind(self.path("there"))
            listener.listen()
            self.start_recorder(self.path("here"), self.path("there"), "pieces.pcap")
            for end in (listener, client):
                end.settimeout(DEADLINE)
            client.connect(self.path("here"))
            server = listener.accept()[0]
            self.addCleanup(server.close)
            for byte in message + message[:100]:
                client.send(bytes([byte]))
            self.assertEqual(server.recv(4096), message)
            server.send(message)
            client.shutdown(socket.SHUT_WR)
            self.assertEqual(server.recv(4096), message[:100])
            self.assertEqual(server.recv(4096), b"")
            self.assertEqual(client.recv(4096), message)
            server.close()
            self.assertEqual(client.recv(4096), b"")
        rows = self.tshark.rows(self.path("pieces.pcap"), "mmsg.mmsg_length")
        self.assertEqual(rows, [[["229"]], [["229"]]])


if __name__ == "__main__":
    unittest.main()
