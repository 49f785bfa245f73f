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
"""
import asyncio
import sys
import time


async def client(host, port, token, opened, firsts, delays, seen, closed):
    reader, writer = await asyncio.open_connection(host, port)
    writer.write((f"GET /events HTTP/1.1\r\nHost: {host}\r\nX-Auth-Token: {token}\r\n"
                  "Accept: text/event-stream\r\n\r\n").encode())
    await writer.drain()
    await reader.readuntil(b"\r\n\r\n")
    opened.append(1)
    ids = []
    pending = b""
    try:
        # Whatever has arrived is read at once and cut into lines here: a
        # read and a wake-up per delivery, not one per line, so that the
        # clients (which stand for other machines) take as little as they
        # can of the cores they share with the gateway.
        while True:
            chunk = await reader.read(65536)
            if not chunk:
                closed.append(1)
                break
            now = time.monotonic()
            pending += chunk
            cut = pending.rfind(b"\n")
            if cut < 0:
                continue
            lines, pending = pending[:cut], pending[cut + 1:]
            for line in lines.split(b"\n"):
                if line.startswith(b"id: "):
                    event = int(line[4:])
                    first = firsts.setdefault(event, now)
                    delays.append(now - first)
                    ids.append(event)
    except asyncio.CancelledError:
        pass
    finally:
        seen.append(ids)
        writer.close()


async def main():
    host, port, token = sys.argv[1], int(sys.argv[2]), sys.argv[3]
    clients, seconds = int(sys.argv[4]), float(sys.argv[5])
    opened, firsts, delays, seen, closed = [], {}, [], [], []
    tasks = []
    for _ in range(clients):
        tasks.append(asyncio.create_task(
            client(host, port, token, opened, firsts, delays, seen, closed)))
        await asyncio.sleep(0.001)
    while len(opened) < clients:
        await asyncio.sleep(0.1)
    print(f"open {len(opened)}", flush=True)
    await asyncio.sleep(seconds)
    for task in tasks:
        task.cancel()
    await asyncio.gather(*tasks, return_exceptions=True)
    gaps = sum((ids[-1] - ids[0] + 1 - len(ids)) for ids in seen if ids)
    delays.sort()
    pick = lambda q: delays[min(len(delays) - 1, int(q * len(delays)))] * 1000 if delays else 0
    print(f"RESULT clients={clients} events={len(firsts)} deliveries={len(delays)} "
          f"p50_ms={pick(0.5):.1f} p99_ms={pick(0.99):.1f} max_ms={pick(1.0):.1f} "
          f"gaps={gaps} closed={len(closed)}", flush=True)


if __name__ == "__main__":
    asyncio.run(main())
