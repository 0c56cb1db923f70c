"""What the tests of the dissector share: captures, and tshark with blade.lua."""

import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import xml.etree.ElementTree

DISSECTOR = pathlib.Path(__file__).resolve().parents[3] / "tools" / "dissector"
sys.path[:0] = [str(DISSECTOR), str(pathlib.Path(__file__).resolve().parents[2] / "support")]
sys.dont_write_bytecode = True

from blade_record import Capture, Conversation  # noqa: E402

USER0 = 147


class Tshark:
    """tshark with the dissector where a user puts it, and nothing else of the user's."""

    def __init__(self):
        self.home = tempfile.mkdtemp(prefix="dissector")
        plugins = pathlib.Path(self.home, ".local", "lib", "wireshark", "plugins")
        plugins.mkdir(parents=True)
        shutil.copy(DISSECTOR / "blade.lua", plugins)

    def close(self):
        shutil.rmtree(self.home)

    def file(self, name):
        return os.path.join(self.home, name)

    def run(self, *arguments):
        environment = {"PATH": os.environ["PATH"], "HOME": self.home, "LC_ALL": "C.UTF-8", "TZ": "UTC"}
        done = subprocess.run(["tshark", *arguments], env=environment, capture_output=True, text=True,
                              timeout=100, check=True)
        # As root it says that this could be dangerous; a Lua error would be said here too.
        errors = [line for line in done.stderr.splitlines() if not line.startswith("Running as user")]
        assert not errors, errors
        return done.stdout

    def rows(self, capture, *fields, display="mmsg or evlink"):
        """The fields of each packet, all occurrences of a field as one list."""
        options = [option for field in fields for option in ("-e", field)]
        output = self.run("-r", capture, "-Y", display, "-T", "fields", "-E", "separator=\t",
                          "-E", "aggregator=|", *options)
        return [[cell.split("|") if cell else [] for cell in line.split("\t")]
                for line in output.splitlines()]

    def protocols(self, capture):
        """Our part of each packet's tree, as XML elements."""
        packets = xml.etree.ElementTree.fromstring(self.run("-r", capture, "-T", "pdml"))
        return [[proto for proto in packet if proto.get("name") in ("mmsg", "evlink", "_ws.malformed")]
                for packet in packets]

    def user0(self, name, messages):
        """A capture of local messages, one a packet."""
        path = self.file(name)
        with Capture(path, USER0) as capture:
            for message in messages:
                capture.packet(message)
        return path

    def tcp(self, name, *connections):
        """A capture of connections, each a list of pieces (side, bytes)."""
        path = self.file(name)
        with Capture(path) as capture:
            for number, pieces in enumerate(connections):
                conversation = Conversation(capture, (50000 + number, 4711))
                for side, data in pieces:
                    conversation.data(side, data)
        return path
