#!/usr/bin/env python3
"""Many clients of GET /events at once, for scripts/load.sh --events.

    event_clients.py HOST PORT TOKEN CLIENTS SECONDS

Opens CLIENTS streams (each on its own connection, with the session TOKEN),
prints "open N" once all of them have their answer's head, then reads for
SECONDS and prints one line:

    RESULT clients=1000 events=31 deliveries=31000 p50_ms=3.1 p99_ms=42.0 max_ms=60.2 gaps=0 closed=0

For each event (by its id) the first client to get it marks the moment;
the delay of a delivery is how much later each client got it (the fan-out
to every stream; in process, the first receipt follows the backend's commit
by one answer of the held change call). gaps counts ids a client missed
between its first and its last; closed counts streams that ended early.

The clients stand for other machines but share the gateway's cores here, so
they cost as little as they can: one process, one selector, plain sockets,
and one read of whatever has arrived per wake-up.
"""
import selectors
import socket
import sys
import time


class Stream:
    def __init__(self, sock):
        self.sock = sock
        self.head_done = False
        self.pending = b""
        self.ids = []


def open_stream(host, port, token):
    sock = socket.create_connection((host, port))
    sock.sendall((f"GET /events HTTP/1.1\r\nHost: {host}\r\nX-Auth-Token: {token}\r\n"
                  "Accept: text/event-stream\r\n\r\n").encode())
    sock.setblocking(False)
    return Stream(sock)


def take(stream, chunk, now, firsts, delays):
    """Adds what arrived to the stream; True once its head is whole."""
    stream.pending += chunk
    if not stream.head_done:
        end = stream.pending.find(b"\r\n\r\n")
        if end < 0:
            return False
        stream.head_done = True
        stream.pending = stream.pending[end + 4:]
    cut = stream.pending.rfind(b"\n")
    if cut >= 0:
        lines, stream.pending = stream.pending[:cut], stream.pending[cut + 1:]
        for line in lines.split(b"\n"):
            if line.startswith(b"id: "):
                event = int(line[4:])
                first = firsts.setdefault(event, now)
                delays.append(now - first)
                stream.ids.append(event)
    return True


def main():
    host, port, token = sys.argv[1], int(sys.argv[2]), sys.argv[3]
    clients, seconds = int(sys.argv[4]), float(sys.argv[5])
    selector = selectors.DefaultSelector()
    streams = []
    for _ in range(clients):
        stream = open_stream(host, port, token)
        streams.append(stream)
        selector.register(stream.sock, selectors.EVENT_READ, stream)
        time.sleep(0.001)
    firsts, delays = {}, []
    opened = 0
    closed = 0
    deadline = None
    while deadline is None or time.monotonic() < deadline:
        wait = 0.5 if deadline is None else max(0.0, deadline - time.monotonic())
        for key, _ in selector.select(wait):
            stream = key.data
            try:
                chunk = stream.sock.recv(65536)
            except BlockingIOError:
                continue
            except OSError:
                chunk = b""
            if not chunk:
                closed += 1
                selector.unregister(stream.sock)
                continue
            was_open = stream.head_done
            if take(stream, chunk, time.monotonic(), firsts, delays) and not was_open:
                opened += 1
        if deadline is None and opened + closed >= clients:
            print(f"open {opened}", flush=True)
            deadline = time.monotonic() + seconds
    for stream in streams:
        stream.sock.close()
    gaps = sum((s.ids[-1] - s.ids[0] + 1 - len(s.ids)) for s in streams if s.ids)
    delays.sort()
    pick = lambda q: delays[min(len(delays) - 1, int(q * len(delays)))] * 1000 if delays else 0
    print(f"RESULT clients={clients} events={len(firsts)} deliveries={len(delays)} "
          f"p50_ms={pick(0.5):.1f} p99_ms={pick(0.99):.1f} max_ms={pick(1.0):.1f} "
          f"gaps={gaps} closed={closed}", flush=True)


if __name__ == "__main__":
    main()
