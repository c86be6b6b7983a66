"""The central server of the long gate: its servlets on a loopback port, with faults, and what it has accepted."""

import collections
import contextlib
import hashlib
import io
import json
import re
import socket
import struct
import threading
import time
import urllib.parse
import zipfile

AGENT_KEY = "LONG1"
KINDS = {"RegisterAgent": "register", "FileCollector": "upload", "StatusUpdateServlet": "status",
         "DataAgentHandlerServlet": "list", "Configuration": "plan"}


class Request:
    """What arrived on a connection of its own. Its body is read when it is first asked for."""

    def __init__(self, server, connection):
        self.server, self.connection, self.stream = server, connection, connection.makefile("rb")
        head = iter(lambda: self.stream.readline().decode("latin-1").strip(), "")
        line = next(head, "").split()
        if len(line) != 3:
            raise ConnectionError("the agent went away")
        self.method, self.target, _ = line
        path, _, query = self.target.partition("?")
        self.query = dict(urllib.parse.parse_qsl(query, keep_blank_values=True))
        self.kind = next((kind for name, kind in KINDS.items() if name in path), path)
        if self.kind == "list" and self.method == "POST":
            self.kind = "answer"
        elif self.kind == "list" and "action" in self.query:
            self.kind = "notice"
        length = re.search(r"^content-length: *(\d+)", "\n".join(head), re.I | re.M)
        self.left = int(length[1]) if length else 0  # of the body
        self.taken = b""

    def take(self, size):
        """Reads on, at most so many bytes."""
        piece = self.stream.read(min(size, self.left))
        if len(piece) < min(size, self.left):
            raise ConnectionError("the agent broke off")
        self.taken += piece
        self.left -= len(piece)

    @property
    def body(self):
        self.take(self.left)
        return self.taken

    def send(self, *pieces, pause=0):
        """With so many seconds after each."""
        for piece in pieces:
            self.connection.sendall(piece)
            time.sleep(pause)

    def end(self):
        """Lets the agent have all that was sent."""
        self.connection.shutdown(socket.SHUT_WR)
        while self.connection.recv(65536):
            pass

    def reset(self):
        """Ends the connection by RST, as a machine that lost its memory does."""
        self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.stream.close()
        self.connection.close()


def answer(status=200, body=b"", headers=(), reason="OK"):
    lines = [f"HTTP/1.1 {status} {reason}", f"Content-Length: {len(body)}", "Connection: close"]
    return ("\r\n".join(lines + [f"{name}: {value}" for name, value in headers]) + "\r\n\r\n").encode() + body


def digest(content):
    return hashlib.sha256(content).hexdigest()


def zipped(members):
    """The bytes of a zip with these names and contents."""
    target = io.BytesIO()
    with zipfile.ZipFile(target, "w", zipfile.ZIP_DEFLATED) as archive:
        for name, content in members.items():
            archive.writestr(name, content)
    return target.getvalue()


def unzipped(file):
    """The contents of a zip by their names without folders."""
    with zipfile.ZipFile(file) as archive:
        return {name.rpartition("/")[2]: archive.read(name) for name in archive.namelist()}


def download(path, number=1, key=AGENT_KEY):
    """A request for an agent."""
    return {"REQUEST_TYPE": "DOWNLOAD_QUERYCONF", "AGENT_REQUEST_ID": str(number), "AGENT_KEY": key, "DOWNLOAD_URL": path}


def test_monitor(number=1):
    return {"REQUEST_TYPE": "TEST_MONITOR", "AGENT_REQUEST_ID": str(number), "RESPONSE_NEEDED": "YES", "MONITOR_NAME": "Asked",
            "WMIQUERY": "SELECT Name FROM Win32_ComputerSystem"}


class Server:
    """Serves until close(). `fault` is called as fault(request) for each request; it returns True if it has dealt with it,
    also by accepting it and answering badly. Everything here may be read from any thread."""

    def __init__(self):
        self.fault = None
        self.snmp_timeout = 5  # seconds
        self.lock = threading.Lock()
        self.records = {}      # name -> {sha256 of the content: how often it came}
        self.uploads = 0       # that were accepted
        self.seen = []         # (kind, query) of each request
        self.answered = set()  # requestIds
        self.requests = []     # the list for the next question
        self.plans = {}        # path -> bytes of a zip
        self.port = 0
        self.open()

    def open(self):
        """Listens. Its small buffers leave no room to a large upload that is not read."""
        self.listener = socket.create_server(("127.0.0.1", self.port), backlog=512)
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 17)
        self.port = self.listener.getsockname()[1]
        self.is_open = True
        threading.Thread(target=self._accept, args=(self.listener,), daemon=True).start()

    def close(self):
        self.is_open = False
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()

    def order(self, *requests):
        """Puts requests on the list that the agent takes when it is told that one waits."""
        with self.lock:
            self.requests += requests

    def offer(self, archive):
        """The path of an archive."""
        with self.lock:
            path = f"/servlets/Configuration/{len(self.plans) + 1}"
            self.plans[path] = archive
        return path

    def offer_plan(self, plan):
        return self.offer(zipped({"queryconf.txt": plan}))

    def count(self, kind, **query):
        """How many requests came of a kind, with these values in their query."""
        with self.lock:
            return sum(one == kind and query.items() <= values.items() for one, values in self.seen)

    def _accept(self, listener):
        with contextlib.suppress(OSError):  # it is closed
            while True:
                threading.Thread(target=self._serve, args=listener.accept()[:1], daemon=True).start()

    def _serve(self, connection):
        connection.settimeout(20)
        with contextlib.suppress(OSError), connection:  # the agent went away, as it does when it is killed
            request = Request(self, connection)
            with self.lock:
                self.seen.append((request.kind, request.query))
            if self.fault is None or not self.fault(request):
                request.send(self.respond(request))

    def respond(self, request):
        """The honest answer, with what it does to the server."""
        body = request.body
        if request.kind == "register":
            fields = {"timeDiff": 0, "AgentKey": AGENT_KEY, "AgentRun": 1, "SNMPTimeout": self.snmp_timeout}
            return answer(headers=fields.items())
        if request.kind == "upload":
            return answer() if self.accept(request) else answer(400, reason="Bad Request")
        if request.kind == "list":
            with self.lock:
                listed, self.requests = self.requests, []
            return answer(body=json.dumps({"RequestList": listed}).encode("utf-16-le") if listed else b"")
        if request.kind == "plan":
            plan = self.plans.get(request.target)
            return answer(404, reason="Not Found") if plan is None else answer(body=plan)
        if request.kind == "answer":
            self.answered.add(request.query.get("requestId"))
        return answer()

    def accept(self, request):
        """Takes the records of an upload; False, and nothing is taken, if it is not a whole zip."""
        try:
            contents = unzipped(io.BytesIO(request.body))
        except (zipfile.BadZipFile, EOFError):
            return False
        with self.lock:
            self.uploads += 1
            for record, content in contents.items():
                self.records.setdefault(record, collections.Counter())[digest(content)] += 1
        return True
