"""HTTP over a Unix socket of the world, and over TCP inside a namespace of it."""

import http.client
import json
import socket

from .schema import check


class Connection(http.client.HTTPConnection):
    """place: the socket's path as the world knows it, or (namespace, address, port)."""

    def __init__(self, world, place, timeout=10):
        super().__init__("localhost", timeout=timeout)
        self.world, self.place = world, place

    def connect(self):
        if isinstance(self.place, str):
            self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            self.sock.settimeout(self.timeout)
            self.sock.connect(self.world.path(self.place))
            return
        namespace, *address = self.place
        with self.world.inside(namespace):
            family = socket.AF_INET6 if ":" in address[0] else socket.AF_INET
            self.sock = socket.socket(family, socket.SOCK_STREAM)
        self.sock.settimeout(self.timeout)
        self.sock.connect(tuple(address))


class Web:
    """A program's HTTP side."""

    def __init__(self, world, place):
        self.world, self.place = world, place

    def open(self, path, method="GET", timeout=10, **headers):
        """The response, its body unread."""
        connection = Connection(self.world, self.place, timeout)
        connection.request(method, path, headers={name.replace("_", "-"): value for name, value in headers.items()})
        return connection.getresponse()

    def get(self, path, timeout=10, **headers):
        """The body of a good answer."""
        response = self.open(path, timeout=timeout, **headers)
        body = response.read()
        assert response.status == 200, body
        return body

    def json(self, path, schema):
        answer = json.loads(self.get(path))
        check(schema, answer)
        return answer

    def status_of(self, path, method="GET", **headers):
        """The status of an answer; that of a failure is checked against its schema."""
        response = self.open(path, method, **headers)
        body = response.read()
        if response.status != 200 and method != "HEAD":
            check("http-error", json.loads(body))
        return response.status

    def metrics(self):
        """The samples: name with labels -> value."""
        lines = self.get("/metrics").decode().splitlines()
        return {line.rpartition(" ")[0]: float(line.rpartition(" ")[2]) for line in lines if not line.startswith("#")}

    def events(self, path="/events", timeout=10, **headers):
        return EventStream(self.open(path, timeout=timeout, **headers))


class EventStream:
    """Server-sent events, one after the other: (id, kind, data)."""

    def __init__(self, response):
        assert response.status == 200, response.read()
        assert response.getheader("Content-Type") == "text/event-stream"
        self.response = response

    def __iter__(self):
        return self

    def __next__(self):
        fields = {}
        for line in iter(self.response.readline, b""):
            text = line.decode().rstrip("\n")
            if text.startswith(":"):
                continue
            if text:
                name, _, value = text.partition(": ")
                fields[name] = value
                continue
            if "data" in fields:
                return fields.get("id"), fields.get("event", "message"), json.loads(fields["data"])
            fields = {}
        raise StopIteration

    def until(self, **match):
        """The id and the data of the first event with these members."""
        for number, _, data in self:
            check("controller-event", data)
            if match.items() <= data.items():
                return number, data
        raise AssertionError(f"the stream ended before {match}")

    def close(self):
        self.response.close()
