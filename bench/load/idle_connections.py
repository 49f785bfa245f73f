#!/usr/bin/env python3
"""Holds N idle TCP connections to HOST:PORT open until stdin closes.

    idle_connections.py 127.0.0.1 8080 10000 < fifo

Prints "open N" once every connection is established (or "failed K" for
those that could not be), then waits. The connections send nothing: to the
server they are clients that connected and went quiet.
"""
import resource
import socket
import sys


def main():
    host, port, count = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if soft < count + 64:
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, count + 64), hard))
    held, failed = [], 0
    for _ in range(count):
        s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        try:
            s.connect((host, port))
            held.append(s)
        except OSError:
            failed += 1
            s.close()
    print(f"open {len(held)}" + (f" failed {failed}" if failed else ""), flush=True)
    sys.stdin.read()
    for s in held:
        s.close()


if __name__ == "__main__":
    main()
