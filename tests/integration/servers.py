"""Servers that answer, fail and misbehave on command, one thread each."""

import socket
import ssl
import struct
import threading

OK = b"HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nok\n"


def http(status, body=b""):
    return b"HTTP/1.1 %s\r\nContent-Length: %d\r\n\r\n%s" % (status, len(body), body)


class Server:
    """Listens on an address. `answer` is what every HTTP request gets: bytes, or one of the names below.

    silent   reads and never answers
    reset    ends with a reset instead of an answer
    close    ends before an answer
    """

    def __init__(self, address, port=0, answer=OK):
        self.family = socket.AF_INET6 if ":" in address else socket.AF_INET
        self.address, self.port, self.answer = address, port, answer
        self.connections = 0
        self.failures = 0  # requests still to be ended without an answer
        self.listener = None
        self.start()

    def url(self, kind="http"):
        return f"{kind}://{f'[{self.address}]' if self.family == socket.AF_INET6 else self.address}:{self.port}"

    def group(self, *kinds, **probe):
        """A group with this server alone, which is checked by HTTP or by `kinds`: its servers and probe settings."""
        return [self.address], {**{f"{kind}Url": self.url(kind) for kind in kinds or ["http"]}, **probe}

    def start(self):
        listener = socket.socket(self.family, socket.SOCK_STREAM)
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind((self.address, self.port))
        listener.listen(64)
        self.port = listener.getsockname()[1]
        self.listener = listener
        threading.Thread(target=self.serve, args=(listener,), daemon=True).start()

    def stop(self):
        """From here on connections are refused; what is open is left alone."""
        if self.listener:
            self.listener.shutdown(socket.SHUT_RDWR)
            self.listener.close()
            self.listener = None

    def serve(self, listener):
        while True:
            try:
                connection, _ = listener.accept()
            except OSError:
                return
            self.connections += 1
            threading.Thread(target=self.converse, args=(connection,), daemon=True).start()

    def converse(self, connection):
        with connection:
            connection.settimeout(10)
            try:
                request = b""
                while b"\r\n\r\n" not in request:
                    part = connection.recv(4096)
                    if not part:
                        return
                    request += part
                self.request = request
                if self.failures:
                    self.failures -= 1
                elif self.answer == "silent":
                    connection.recv(1)
                elif self.answer == "reset":
                    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                elif self.answer != "close":
                    connection.sendall(self.answer)
                    connection.recv(1)
            except OSError:
                pass


class TlsServer(Server):
    """Asks every client for a certificate of the same CA. `certificates` is their folder."""

    certificates = None

    def converse(self, connection):
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(f"{self.certificates}/{self.address}.pem", f"{self.certificates}/{self.address}.key")
        context.load_verify_locations(f"{self.certificates}/ca.pem")
        context.verify_mode = ssl.CERT_REQUIRED
        try:
            super().converse(context.wrap_socket(connection, server_side=True))
        except OSError:
            connection.close()
