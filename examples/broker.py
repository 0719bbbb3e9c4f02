#!/usr/bin/env python3
"""A broker that knows no cloud and answers each request itself, written from docs/protocol.md.

    broker.py [SOCKET]
"""
import itertools
import json
import os
import socketserver
import struct
import sys

MAGIC, LONGEST, PENDING = 0xA1B2, 1 << 20, -3001


class Broker(socketserver.ThreadingUnixStreamServer):
    daemon_threads, request_queue_size = True, 128
    ids, requests, mode = itertools.count(1), {}, 0


class Connection(socketserver.BaseRequestHandler):
    def read(self, size):
        data = b""
        while len(data) < size:
            piece = self.request.recv(size - len(data))
            if not piece:
                raise EOFError
            data += piece
        return data

    def send(self, kind, body):
        text = json.dumps(body).encode()
        self.request.sendall(struct.pack(">HHI", MAGIC, kind, len(text)) + text)

    def handle(self):
        try:
            self.send(16, {"errorcode": 0, "result": 0})
            while True:
                magic, kind, length = struct.unpack(">HHI", self.read(8))
                if magic != MAGIC or length > LONGEST:
                    return
                body = self.read(length)
                self.answer(kind, json.loads(body) if body else {})
        except (EOFError, OSError, ValueError, KeyError, TypeError):
            return  # no message of this protocol: this connection ends, the others stay

    def answer(self, kind, body):
        if kind in (64, 68):  # a request to the cloud
            if "request" not in body:
                return self.send(kind + 1, {"errorcode": -1})
            request = next(self.server.ids)
            self.server.requests[request] = json.dumps({"error_code": 0, "asked": json.loads(body["request"])})
            return self.send(kind + 1, {"errorcode": 0, "id": request})
        if kind == 66:  # is it answered?
            text = self.server.requests.pop(body["id"], None)
            done = {"errorcode": 0, "response": text} if text else {"errorcode": PENDING}
            return self.send(67, {"id": body["id"], **done})
        if kind == 80 and body["event"] in (10, 11):
            self.server.mode = 1 if body["event"] == 10 else 0
        if kind in (96, 98):
            return self.send(kind + 1, {"errorcode": 0, "status": 2 if kind == 96 else self.server.mode})
        return self.send(kind + 1, {"errorcode": 0 if kind in (32, 80) else -1})


def serve(connection):
    path = sys.argv[1] if len(sys.argv) > 1 else "/tmp/cloud-brd"
    if os.path.exists(path):
        os.unlink(path)  # of a broker that was killed
    Broker(path, connection).serve_forever()


if __name__ == "__main__":
    serve(Connection)
