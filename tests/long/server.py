"""The central server of the long gate: its servlets on a loopback port, with faults, and what it has accepted."""

import hashlib
import io
import socket
import struct
import threading
import urllib.parse
import zipfile

SERVLETS = ("RegisterAgent", "FileCollector", "StatusUpdateServlet", "DataAgentHandlerServlet", "Configuration")


class Request:
    """What arrived: `servlet` is the last word of the path, `query` has the last value of each parameter."""

    def __init__(self, method, target, headers, body):
        path, _, query = target.partition("?")
        self.method, self.target, self.headers, self.body = method, target, headers, body
        self.servlet = next((name for name in SERVLETS if name in path), path)
        self.query = dict(urllib.parse.parse_qsl(query, keep_blank_values=True))


def answer(status=200, body=b"", headers=(), reason="OK"):
    lines = [f"HTTP/1.1 {status} {reason}", f"Content-Length: {len(body)}", "Connection: close"]
    return ("\r\n".join(lines + [f"{name}: {value}" for name, value in headers]) + "\r\n\r\n").encode() + body


def zip_of(members):
    """The bytes of a zip with these names and contents."""
    target = io.BytesIO()
    with zipfile.ZipFile(target, "w", zipfile.ZIP_DEFLATED) as archive:
        for name, content in members.items():
            archive.writestr(name, content)
    return target.getvalue()


class Server:
    """Serves until close(). `fault` is called as fault(server, connection, request) for each request; it returns True if it
    has dealt with it, also by accepting it and answering badly. Everything here may be read from any thread."""

    def __init__(self, key="LONG1", port=0, host="127.0.0.1"):
        self.key = key
        self.fault = None
        self.snmp_timeout = 5  # seconds
        self.lock = threading.Lock()
        self.records = {}      # name -> {sha256 of the content: how often it came}
        self.zips = {}         # FILENAME -> how often it came
        self.refused = []      # uploads that are not a whole zip
        self.seen = []         # (servlet, query) of each request
        self.requests = []     # the list for the next question
        self.plans = {}        # path -> bytes of a zip
        self.answers = []      # what was posted to the servlet of requests
        self.listener = socket.create_server((host, port), backlog=512)
        self.port = self.listener.getsockname()[1]
        self.is_open = True
        threading.Thread(target=self._accept, daemon=True).start()

    def close(self):
        self.is_open = False
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()

    def order(self, *requests):
        """Puts requests on the list that the agent takes when it is told that one waits."""
        with self.lock:
            self.requests += requests

    def offer_plan(self, plan):
        """The path of a new plan, whose zip it serves."""
        with self.lock:
            path = f"/servlets/Configuration/{len(self.plans) + 1}"
            self.plans[path] = zip_of({"queryconf.txt": plan})
        return path

    def count(self, servlet):
        with self.lock:
            return sum(name == servlet for name, _ in self.seen)

    def _accept(self):
        while self.is_open:
            try:
                connection, _ = self.listener.accept()
            except OSError:
                return
            threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, connection):
        connection.settimeout(20)
        try:
            with connection:
                request = self._read(connection)
                if request is None:
                    return
                with self.lock:
                    self.seen.append((request.servlet, request.query))
                if self.fault is None or not self.fault(self, connection, request):
                    connection.sendall(self.respond(request))
        except OSError:
            pass  # the agent went away, as it does when it is killed

    @staticmethod
    def _read(connection):
        stream = connection.makefile("rb")
        line = stream.readline(65536).decode("latin-1").split()
        if len(line) != 3:
            return None
        headers = {}
        while (field := stream.readline(65536).decode("latin-1").strip()) != "":
            name, _, value = field.partition(":")
            headers[name.lower()] = value.strip()
        length = int(headers.get("content-length", 0))
        body = stream.read(length)
        return Request(line[0], line[1], headers, body) if len(body) == length else None

    def respond(self, request):
        """The honest answer, with what it does to the server."""
        if request.servlet == "RegisterAgent":
            return answer(headers=(("timeDiff", 0), ("AgentKey", self.key), ("AgentRun", 1), ("SNMPTimeout", self.snmp_timeout)))
        if request.servlet == "FileCollector":
            return answer() if self.accept(request) else answer(400, reason="Bad Request")
        if request.servlet == "DataAgentHandlerServlet":
            return answer(body=self._serve_requests(request))
        if request.servlet == "Configuration":
            plan = self.plans.get(request.target)
            return answer(404, reason="Not Found") if plan is None else answer(body=plan)
        return answer()

    def _serve_requests(self, request):
        with self.lock:
            if request.method == "POST":
                self.answers.append((request.query, request.body))
            if request.method == "POST" or "action" in request.query or not self.requests:
                return b""
            members = [", ".join(f'"{name}": "{value}"' for name, value in one.items()) for one in self.requests]
            self.requests = []
        return ('{ "RequestList": [ { ' + " }, { ".join(members) + " } ] }").encode("utf-16-le")

    def accept(self, request, times=1):
        """Takes the records of an upload; False, and nothing is taken, if it is not a whole zip. A server that only says
        that it has them takes them zero times."""
        try:
            with zipfile.ZipFile(io.BytesIO(request.body)) as archive:
                contents = {name.rpartition("/")[2]: archive.read(name) for name in archive.namelist()}
        except (zipfile.BadZipFile, EOFError) as error:
            with self.lock:
                self.refused.append((request.query.get("FILENAME"), str(error)))
            return False
        with self.lock:
            name = request.query.get("FILENAME")
            self.zips[name] = self.zips.get(name, 0) + 1
            for record, content in contents.items():
                copies = self.records.setdefault(record, {})
                digest = hashlib.sha256(content).hexdigest()
                copies[digest] = copies.get(digest, 0) + times
        return True


def reset(connection):
    """Ends a connection by RST, as a machine that lost its memory does."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()
