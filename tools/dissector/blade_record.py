#!/usr/bin/env python3
"""Stands between two programs of the blade and writes what passes as a capture for Wireshark.

It needs no special rights and also sees Unix sockets, which no packet capture does. The capture shows
each connection as TCP on 127.0.0.1, one message a packet; blade.lua, beside this file, takes it apart.
Messages are passed on whole, as the event manager wants them.
"""

import argparse
import os
import signal
import socket
import struct
import sys
import threading
import time

MMCH_SIZE, MMSG_MAX = 64, 4064
LINK_HEADER, LINK_BODY_MAX = 16, 4064
SYN, ACK, PSH, FIN = 2, 16, 8, 1


class Capture:
    """A pcap file of IPv4 packets, complete after every packet."""

    def __init__(self, path, link_type=101):  # LINKTYPE_RAW
        self.lock = threading.Lock()
        self.file = open(path, "wb", buffering=0)
        self.file.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, link_type))

    def packet(self, data):
        now = time.time_ns() // 1000
        header = struct.pack("<IIII", now // 1000000, now % 1000000, len(data), len(data))
        self.file.write(header + data)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.file.close()


class Conversation:
    """One connection in a capture, as TCP; side 0 has opened it."""

    def __init__(self, capture, ports):
        self.capture, self.ports, self.sent = capture, ports, [0, 0]
        with capture.lock:
            self._segment(0, SYN)
            self._segment(1, SYN | ACK)
            self._segment(0, ACK)

    def data(self, side, data):
        with self.capture.lock:
            for begin in range(0, len(data), 65000):
                self._segment(side, PSH | ACK, data[begin : begin + 65000])

    def end(self, side):
        with self.capture.lock:
            self._segment(side, FIN | ACK)

    def _segment(self, side, flags, data=b""):
        ports = self.ports[side], self.ports[1 - side]
        acknowledged = self.sent[1 - side] if flags & ACK else 0
        # No checksums: readers do not ask for them unless told to.
        tcp = struct.pack(">HHIIBBHHH", *ports, self.sent[side], acknowledged, 5 << 4, flags, 65535, 0, 0)
        ip = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 40 + len(data), 0, 0, 64, 6, 0, *[b"\x7f\0\0\1"] * 2)
        self.capture.packet(ip + tcp + data)
        self.sent[side] += len(data) + bool(flags & (SYN | FIN))
        self.sent[side] &= 0xFFFFFFFF


def local_length(stream):
    """Bytes of the local message that a stream begins with; None: its header is not yet there."""
    if len(stream) < MMCH_SIZE:
        return None
    length = struct.unpack_from(">H", stream, 10)[0]
    return length if MMCH_SIZE <= length <= MMSG_MAX else len(stream)


def link_length(stream):
    """The same on the archiver link."""
    if len(stream) < LINK_HEADER:
        return None
    version, length, kind, flag = struct.unpack_from(">4H", stream)
    if version != 1 or length > LINK_BODY_MAX:
        return len(stream)
    return LINK_HEADER + length + (4 if (kind, flag) == (6, 1) else 0)


def take_messages(stream, length_of):
    """Cuts the whole messages off the front of a bytearray."""
    while stream:
        length = length_of(stream)
        if length is None or length > len(stream):
            return
        yield bytes(stream[:length])
        del stream[:length]


def pump(source, target, conversation, side, length_of):
    """Passes on one direction of a connection until its end."""
    stream = bytearray()
    try:
        while received := source.recv(65536):
            stream += received
            for message in take_messages(stream, length_of):
                conversation.data(side, message)
                target.sendall(message)
        if stream:
            conversation.data(side, bytes(stream))
            target.sendall(stream)
    except OSError:
        pass  # one of the two has gone; the other learns of it here
    conversation.end(side)
    for end, how in ((target, socket.SHUT_WR), (source, socket.SHUT_RD)):
        try:
            end.shutdown(how)
        except OSError:
            pass


def address_of(text):
    """HOST:PORT, or the path of a Unix socket."""
    if "/" in text:
        return socket.AF_UNIX, text
    host, colon, port = text.rpartition(":")
    if not colon or not port.isdecimal() or int(port) > 65535:
        raise argparse.ArgumentTypeError("neither HOST:PORT nor a path")
    return socket.AF_INET, (host, int(port))


def listen(address):
    family, name = address
    listener = socket.socket(family, socket.SOCK_STREAM)
    if family == socket.AF_INET:
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind(name)
    listener.listen()
    return listener


def serve(listener, to, capture, length_of):
    port = 27 if to[0] == socket.AF_UNIX else to[1][1]
    count = 0
    while True:
        client = listener.accept()[0]
        server = socket.socket(to[0], socket.SOCK_STREAM)
        try:
            server.connect(to[1])
        except OSError as error:
            print(f"blade_record: {error}", file=sys.stderr)
            client.close()
            continue
        count += 1
        conversation = Conversation(capture, (49152 + count % 16384, port))
        for side, ends in enumerate(((client, server), (server, client))):
            threading.Thread(target=pump, args=(*ends, conversation, side, length_of), daemon=True).start()


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    for option, text in (("--listen", "where the one that connects finds this recorder; port 0: any"),
                         ("--to", "where the other one listens")):
        parser.add_argument(option, type=address_of, required=True, metavar="HOST:PORT|PATH", help=text)
    parser.add_argument("capture", metavar="FILE.pcap")
    options = parser.parse_args()
    local = options.to[0] == socket.AF_UNIX
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    try:
        listener = listen(options.listen)
        capture = Capture(options.capture)
    except OSError as error:
        print(f"blade_record: {error}", file=sys.stderr)
        return 2
    name = listener.getsockname()
    print("listening on", name if isinstance(name, str) else "{}:{}".format(*name), flush=True)
    try:
        serve(listener, options.to, capture, local_length if local else link_length)
    except KeyboardInterrupt:
        return 0
    finally:
        if options.listen[0] == socket.AF_UNIX:
            os.unlink(options.listen[1])


if __name__ == "__main__":
    sys.exit(main())
