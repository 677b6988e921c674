"""A TCP proxy that fails at one place of what a client sends: it stops for good there, so that the client can
be killed, or cuts the connection."""

import contextlib
import re
import socket
import struct
import threading


class BadLine:
    """Hands on what goes to (host, port) and comes from there. The first `times` connections whose bytes match
    `marker` fail `after` bytes behind that: `failed` is set, nothing more of them goes on, and with "fin" or
    "rst" they end so on both sides.

        with BadLine(("127.0.0.1", 80), b"PUT ", 1000) as line:
            ...  # to line.port
            assert line.failed.wait(60)
    """

    def __init__(self, target, marker, after=0, how="hold", times=1):
        self.target, self.marker, self.after, self.how, self.times = target, re.compile(marker), after, how, times
        self.failed, self.lock = threading.Event(), threading.Lock()
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self.accept, daemon=True).start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        with contextlib.suppress(OSError):
            self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()

    def accept(self):
        with contextlib.suppress(OSError):
            while True:
                threading.Thread(target=self.serve, args=self.listener.accept()[:1], daemon=True).start()

    def serve(self, client):
        with client, contextlib.suppress(OSError), socket.create_connection(self.target) as server:
            back = threading.Thread(target=self.pump, args=(server, client), daemon=True)
            back.start()
            if self.pump_until_failure(client, server) and self.how == "rst":
                for side in (client, server):
                    side.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            else:
                back.join()

    @staticmethod
    def pump(source, sink):
        with contextlib.suppress(OSError):
            while piece := source.recv(1 << 16):
                sink.sendall(piece)
        with contextlib.suppress(OSError):
            sink.shutdown(socket.SHUT_WR)

    def left(self, seen):
        """How many bytes behind the marker, which ends in these bytes, may still pass; None: all."""
        with self.lock:
            match = self.marker.search(seen) if self.times > 0 else None
            self.times -= 1 if match else 0
            return self.after + match.end() if match else None

    def pump_until_failure(self, client, server):
        """True when the connection failed; "hold" first waits for the client's end."""
        seen, left = b"", None
        with contextlib.suppress(OSError):
            while piece := client.recv(1 << 16):
                if left is None:
                    before = min(len(seen), 4000)
                    seen = seen[-4000:] + piece
                    left = self.left(seen)
                    left = None if left is None else max(0, left - before)
                server.sendall(piece if left is None else piece[:left])
                left = None if left is None else max(0, left - len(piece))
                if left == 0:
                    self.failed.set()
                    if self.how != "hold":
                        break
        with contextlib.suppress(OSError):
            server.shutdown(socket.SHUT_WR if left is None else socket.SHUT_RDWR)
            if self.how == "fin" and left is not None:
                client.shutdown(socket.SHUT_RDWR)
        return left is not None
