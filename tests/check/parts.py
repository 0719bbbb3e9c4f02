"""Parts for "extender check": a broker, a management daemon, a service. Right, or with the one fault that
CLOUD_FAULT names.

    parts.py broker|kmpd|service
"""
import json
import os
import socket
import struct
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../examples"))
import broker  # noqa: E402

FAULT = os.environ.get("CLOUD_FAULT", "")
LENGTH = 10360


class Pieces:
    """Reads as many bytes as asked for. With a fault: takes what one call brings for a whole message, or dies."""

    def read(self, size):
        if size == 0:
            return b""
        if FAULT == "pieces":
            return self.request.recv(size)
        if FAULT == "several" and size == 8:
            self.got = self.request.recv(65536)
            if not self.got:
                raise EOFError
        if FAULT == "several":
            data, self.got = self.got[:size], self.got[size:]
            return data
        if FAULT == "large" and size > 1000:
            os._exit(1)
        data = b""
        while len(data) < size:
            piece = self.request.recv(size - len(data))
            if not piece:
                if FAULT == "fragile" and data or FAULT == "fragile" and size != 8:
                    os._exit(1)
                raise EOFError
            data += piece
        return data


class Broker(Pieces, broker.Connection):
    count = 0

    def send(self, kind, body):
        if FAULT == "greeting" and kind == 16:
            kind = 17
        if FAULT == "frames" and "status" in body:
            text = json.dumps(body).encode() + b"\0"
            return self.request.sendall(struct.pack(">HHI", 0xA1B2, kind, len(text)) + text)
        if FAULT == "link" and kind == 97 or FAULT == "mode" and kind == 99:
            body["status"] = "up"
        if FAULT == "answer" and "response" in body:
            body["response"] = json.loads(body["response"])
        if FAULT == "ids" and kind == 69:
            body["id"] = 7
        if FAULT == "reject" and body["errorcode"] == -1:
            body["errorcode"] = 1
        return super().send(kind, body)

    def handle(self):
        Broker.count += 1
        if FAULT == "hundred" and Broker.count > 50:
            os._exit(1)
        if FAULT != "fragile":
            return super().handle()
        try:
            self.send(16, {"errorcode": 0, "result": 0})
            while True:
                magic, kind, length = struct.unpack(">HHI", self.read(8))
                body = self.read(length)
                if magic != 0xA1B2 or kind > 200:
                    raise ValueError
                self.answer(kind, json.loads(body) if body else {})
        except EOFError:
            return
        except Exception:
            os._exit(1)

    def answer(self, kind, body):
        if FAULT == "fragile" and (kind == 66 and not isinstance(body["id"], int)):
            os._exit(1)
        if FAULT == "events" and kind == 80:
            return self.send(81, {"errorcode": 0})
        if FAULT == "submit" and kind == 64 or FAULT == "register" and kind == 32:
            return self.send(kind + 1, {"errorcode": -5})
        if FAULT == "impatient" and kind in (64, 68) and len(self.server.requests) > 10:
            return self.send(kind + 1, {"errorcode": -5})
        if FAULT == "unknown-id" and kind == 66:
            return self.send(67, {"id": body["id"], "errorcode": 0, "response": "of another"})
        return super().answer(kind, body)


def kmpd():
    daemon = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    daemon.bind("/tmp/cloud_kmpd_unix")
    while True:
        datagram, sender = daemon.recvfrom(65536)
        if FAULT == "fragile":
            length, kind = struct.unpack("=II", datagram[8:16])
            payload = datagram[120:datagram.index(b"\0", 120)]
            assert len(datagram) == LENGTH and kind < 2 and datagram[16:48].isalnum() and datagram[48] == 0
            assert length == 120 + len(payload)
        answer = bytes(LENGTH)
        if FAULT == "own-address":
            sender = "/tmp/cloud_msg_unix"
        if FAULT == "silent" or sender is None and FAULT != "no-address":
            continue
        for _ in range(2 if FAULT == "twice" else 1):
            if FAULT in ("never-reads", "no-address", "gone"):
                daemon.sendto(answer, 0 if FAULT == "never-reads" else socket.MSG_DONTWAIT, sender)
                continue
            try:
                daemon.sendto(answer, socket.MSG_DONTWAIT, sender)
            except OSError:
                pass  # gone, or does not read


class Service(Pieces):
    def __init__(self):
        self.request = socket.socket(socket.AF_UNIX)
        self.request.connect("/tmp/cloud-brd")

    def send(self, kind, body):
        text = json.dumps(body).encode()
        self.request.sendall(struct.pack(">HHI", 0xA1B2, kind, len(text)) + text)

    def receive(self):
        _, kind, length = struct.unpack(">HHI", self.read(8))
        body = self.read(length)
        return kind, json.loads(body) if body else {}

    def serve(self):
        registration = {"hellocloud": "yes" if FAULT == "register" else 1}
        if FAULT == "waits":
            self.send(32, registration)
        _, greeting = self.receive()
        refused = greeting["errorcode"] != 0 or greeting.get("result", 1) == 1
        if refused and FAULT != "stays":
            return
        if FAULT != "waits":
            self.send(32, registration)
        self.receive()
        keys = "kcspVer deviceId cloudUserName deviceName alias deviceMac hwId deviceModel deviceHwVer fwId oemId fwVer"
        params = {key: "" for key in (sorted(keys.split()) if FAULT == "hello" else keys.split())}
        while True:
            kind, body = self.receive()
            if kind == 128:
                self.send(129, {"response": json.dumps({"method": "helloCloud", "params": params})})
            elif kind == 112 and (isinstance(body.get("request"), str) or FAULT == "no-request"):
                self.send(113, {"errorcode": "none" if FAULT == "request" else 0, "response": "{}"})
            elif kind == 34 and FAULT == "answers-34":
                self.send(35, {"errorcode": 0})


if __name__ == "__main__":
    part = sys.argv.pop(1)
    if part == "broker":
        broker.serve(Broker)
    elif part == "kmpd":
        kmpd()
    else:
        try:
            Service().serve()
        except (EOFError, OSError):
            pass
