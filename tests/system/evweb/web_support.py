"""Programs, archives and a browser for the tests of the page."""

import ctypes
import http.client
import json
import os
import pathlib
import select
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import time

DEADLINE = 30
POSTGRES = pathlib.Path("/usr/lib/postgresql/15/bin")


def wait_until(reached, what):
    end = time.monotonic() + DEADLINE
    while not (value := reached()):
        if time.monotonic() > end:
            raise TimeoutError(f"waited for {what}")
        time.sleep(0.01)
    return value


class Program:
    """A program that says where it listens, ended with the test."""

    def __init__(self, command, **options):
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **options)
        self.place = ""
        while self.place == "":
            line = self.process.stdout.readline()
            if line == "":
                raise RuntimeError(f"{command[0]}: {self.process.stderr.read()}")
            self.place = line.rpartition("listening on ")[2].strip() if "listening on " in line else ""

    def end(self, number=signal.SIGTERM):
        if self.process.poll() is None:
            self.process.send_signal(number)
        said = self.process.communicate(timeout=DEADLINE)
        return self.process.returncode, said


def event(blade, number, *, seconds, kind=1, source=18, event_id=1, category=1, data=b"", enclosure="CHASSIS-7", slot=3,
          instance=0, version=1):
    """The image of an event: header and data."""
    def text(value):
        return value.encode("utf-8", "surrogateescape") if isinstance(value, str) else value
    return struct.pack(">64s64sIIIIHBBBBH", text(enclosure), text(blade), slot, instance, number, seconds, len(data),
                       source, kind, category, version, event_id) + data


def crash(blade, number, *, seconds, message="Linux read function fails for Event Log File!", **more):
    """A bug-check of the event manager."""
    data = struct.pack(">64s64sI64s", b"store/append.cpp", b"empSaveEventLogMsgToLogFile", 212, message.encode())
    return event(blade, number, seconds=seconds, kind=3, source=27, event_id=11, data=data, **more)


class Archiver(Program):
    """An archiver; events go in as blades send them."""

    def __init__(self, programs, database, **options):
        super().__init__([f"{programs}/evarchiver", "--listen", "127.0.0.1:0", "--db", database, "--progress", "0"], **options)

    def send(self, events):
        """A link with its handshake for each call. Returns when they are safe: the archiver has ended the link."""
        host, _, port = self.place.rpartition(":")
        first = events[0]
        # Identity, oldest id, length and first bytes of its data; four bytes follow that the header does not announce.
        status = first[:140] + first[144:146] + bytes(2) + first[152:176].ljust(24, b"\0") + bytes(8)
        with socket.create_connection((host, int(port)), timeout=DEADLINE) as link:
            link.sendall(struct.pack(">HHHHII", 1, len(status), 6, 1, 0, 7) + status + bytes(4))
            answer = link.recv(4096)
            assert answer[4:6] == b"\0\6", answer
            link.sendall(b"".join(struct.pack(">HHHHII", 1, len(image), 1, 1, 0, 0) + image for image in events))
            link.shutdown(socket.SHUT_WR)
            while link.recv(4096):
                pass


class Postgres:
    """A server of the test's own, on a Unix socket only."""

    def __init__(self):
        self.directory = tempfile.mkdtemp(prefix="evweb", dir="/tmp")
        self.user = "postgres" if os.geteuid() == 0 else None
        if self.user:
            shutil.chown(self.directory, self.user, self.user)
        self.run("initdb", "--no-sync", "--auth=trust", "--username=postgres", "--encoding=UTF8", "--locale=C", "-D", self.data)
        self.start()

    @property
    def data(self):
        return f"{self.directory}/data"

    def command(self, name, *arguments):
        change = ["setpriv", "--reuid=postgres", "--regid=postgres", "--clear-groups", "--pdeathsig=QUIT"] if self.user else []
        return [*change, str(POSTGRES / name), *arguments]

    def run(self, name, *arguments):
        subprocess.run(self.command(name, *arguments), check=True, capture_output=True, timeout=DEADLINE, cwd="/")

    def start(self):
        settings = ("listen_addresses=", "fsync=off", "full_page_writes=off", "shared_buffers=32MB", "autovacuum=off",
                    "dynamic_shared_memory_type=mmap")
        self.server = subprocess.Popen(self.command("postgres", "-D", self.data, "-k", self.directory,
                                                    *[word for setting in settings for word in ("-c", setting)]),
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, cwd="/")
        wait_until(lambda: self.sql("SELECT 1", quietly=True), "the server to take connections")

    def sql(self, statements, database="postgres", quietly=False):
        done = subprocess.run([str(POSTGRES / "psql"), "-X", "-q", "-A", "-t", "-v", "ON_ERROR_STOP=1", "-h", self.directory, "-U", "postgres",
                               "-d", database, "-c", statements], capture_output=True, text=True, timeout=DEADLINE)
        if done.returncode != 0:
            if quietly:
                return ""
            raise RuntimeError(done.stderr)
        return done.stdout

    def place(self, database, user="postgres"):
        return f"postgresql://{user}@{self.directory.replace('/', '%2F')}/{database}"

    def stop(self):
        self.server.send_signal(signal.SIGINT)
        self.server.wait(timeout=DEADLINE)

    def end(self):
        self.server.send_signal(signal.SIGQUIT)
        self.server.wait(timeout=DEADLINE)
        shutil.rmtree(self.directory)


class Web(Program):
    """The server of the pages."""

    def __init__(self, programs, database, *arguments, listen="127.0.0.1:0"):
        super().__init__([f"{programs}/evweb", "--db", database, "--listen", listen, *arguments])

    def request(self, path, method="GET", headers=None, host=None):
        """Status, headers and body."""
        connection = http.client.HTTPConnection("unix" if self.place.startswith("unix:") else self.place, timeout=DEADLINE)
        if self.place.startswith("unix:"):
            connection.sock = socket.socket(socket.AF_UNIX)
            connection.sock.connect(self.place[len("unix:"):])
        try:
            connection.request(method, path, headers={"Host": host or self.place.removeprefix("unix:"), **(headers or {})})
            answer = connection.getresponse()
            return answer.status, answer.headers, answer.read()
        finally:
            connection.close()

    def raw(self, request):
        """All that comes back for some bytes."""
        host, _, port = self.place.rpartition(":")
        with socket.create_connection((host, int(port)), timeout=DEADLINE) as link:
            link.sendall(request)
            answer = b""
            while piece := link.recv(65536):
                answer += piece
            return answer

    def ask(self, question):
        status, _, body = self.request(f"/api/v1/{question}")
        return status, json.loads(body)


def network(statement):
    """A command that carries out another one in a network of its own, with the addresses 192.0.2.1 and 192.0.2.2."""
    ways = "ip link set lo up && ip addr add 192.0.2.1/32 dev lo && ip addr add 192.0.2.2/32 dev lo"
    return ["unshare", "--net", "sh", "-c", f"{ways} && exec \"$@\"", "sh", *statement]


NETWORK = shutil.which("unshare") is not None and shutil.which("ip") is not None and \
    subprocess.run(network(["true"]), capture_output=True, timeout=DEADLINE).returncode == 0


class FarWeb(Program):
    """The server of the pages in a network of its own, to which links come from several hosts."""

    def __init__(self, programs, database, *arguments):
        super().__init__(network([f"{programs}/evweb", "--db", database, "--listen", "0.0.0.0:0", *arguments]))

    def link(self, host):
        """A link from that address to itself."""
        enter = ctypes.CDLL(None, use_errno=True).setns
        with open("/proc/self/ns/net") as ours, open(f"/proc/{self.process.pid}/ns/net") as theirs:
            if enter(theirs.fileno(), 0) != 0:
                raise OSError(ctypes.get_errno(), "setns")
            try:
                return socket.create_connection((host, int(self.place.rpartition(":")[2])), timeout=DEADLINE)
            finally:
                enter(ours.fileno(), 0)


class Browser:
    """A browser without a window, driven through its pipe: messages of JSON with a NUL behind each."""

    def __init__(self, program):
        self.profile = tempfile.TemporaryDirectory(prefix="evweb_browser")
        theirs_in, ours_out = os.pipe()
        ours_in, theirs_out = os.pipe()

        def inherit():
            # The numbers that the browser expects; a copy first, since one may stand in the other's place.
            reading, writing = os.dup(theirs_in), os.dup(theirs_out)
            os.dup2(reading, 3)
            os.dup2(writing, 4)

        self.process = subprocess.Popen(
            [program, "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run", "--disable-extensions",
             "--disable-background-networking", "--disable-component-update", "--disable-sync", "--hide-scrollbars", "--no-proxy-server",
             f"--user-data-dir={self.profile.name}", "--remote-debugging-pipe", "about:blank"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, close_fds=False, preexec_fn=inherit)
        os.close(theirs_in)
        os.close(theirs_out)
        self.input, self.output, self.buffer, self.number = ours_in, ours_out, b"", 0
        self.events = []
        self.session = None
        target = next(target for target in self.call("Target.getTargets")["targetInfos"] if target["type"] == "page")
        self.session = self.call("Target.attachToTarget", targetId=target["targetId"], flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Log", "Network"):
            self.call(f"{domain}.enable")

    def receive(self):
        while b"\0" not in self.buffer:
            if not select.select([self.input], [], [], DEADLINE)[0]:
                raise TimeoutError("the browser says nothing")
            piece = os.read(self.input, 65536)
            if not piece:
                raise RuntimeError("the browser has ended")
            self.buffer += piece
        line, _, self.buffer = self.buffer.partition(b"\0")
        message = json.loads(line)
        if "method" in message:
            self.events.append(message)
        return message

    def call(self, method, **parameters):
        self.number += 1
        message = {"id": self.number, "method": method, "params": parameters}
        if self.session:
            message["sessionId"] = self.session
        os.write(self.output, json.dumps(message).encode() + b"\0")
        while (answer := self.receive()).get("id") != self.number:
            pass
        if "error" in answer:
            raise RuntimeError(f"{method}: {answer['error']}")
        return answer["result"]

    def run(self, script):
        """The value of an expression in the page; promises are awaited."""
        done = self.call("Runtime.evaluate", expression=script, returnByValue=True, awaitPromise=True)
        if "exceptionDetails" in done:
            raise RuntimeError(json.dumps(done["exceptionDetails"]))
        return done["result"].get("value")

    def show(self, address):
        """Opens a page and waits until it is drawn."""
        self.call("Page.navigate", url=address)
        self.drawn(address)

    def await_true(self, script, what):
        """Waits until an expression is true, also over a change of pages."""
        def is_true():
            try:
                return self.run(script) is True
            except RuntimeError:
                return False  # between two pages
        wait_until(is_true, what)

    def drawn(self, address=None):
        self.await_true("document.readyState === 'complete' && document.getElementById('main')?.getAttribute('aria-busy') === 'false'"
                        + (f" && location.href === {json.dumps(address)}" if address else ""), f"a page to be drawn: {address}")

    def complaints(self):
        """What the browser has to say against the pages since the last call: exceptions, errors, violations."""
        found = []
        for message in self.events:
            parameters = message["params"]
            if message["method"] == "Runtime.exceptionThrown":
                found.append(json.dumps(parameters["exceptionDetails"])[:500])
            elif message["method"] == "Log.entryAdded" and parameters["entry"]["level"] in ("error", "warning"):
                found.append(f"{parameters['entry']['source']}: {parameters['entry']['text']} {parameters['entry'].get('url', '')}")
            elif message["method"] == "Runtime.consoleAPICalled" and parameters["type"] in ("error", "warning", "assert"):
                found.append(str(parameters["args"]))
        self.events.clear()
        return found

    def key(self, key, code=None):
        text = {"text": key} if len(key) == 1 else {"text": "\r"} if key == "Enter" else {}
        name = code or (f"Key{key.upper()}" if key.isalpha() and len(key) == 1 else key)
        numbers = {"Enter": 13, "Tab": 9, "ArrowRight": 39, "ArrowLeft": 37, " ": 32}
        for kind in ("keyDown", "keyUp"):
            self.call("Input.dispatchKeyEvent", type=kind, key=key, code=name, windowsVirtualKeyCode=numbers.get(key, ord(key.upper()[0])),
                      **(text if kind == "keyDown" else {}))

    def size(self, width, height, is_phone=False):
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=is_phone)

    def scheme(self, name):
        self.call("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": name}])

    def end(self):
        try:
            self.session = None
            self.call("Browser.close")
            self.process.wait(timeout=5)
        except (RuntimeError, TimeoutError, OSError, subprocess.TimeoutExpired):
            self.process.kill()
            self.process.wait()
        os.close(self.input)
        os.close(self.output)
        self.profile.cleanup()
