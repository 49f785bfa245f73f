#!/usr/bin/env python3
"""A storm of good logins beside another session's task counts.

    login_storm.py URL PASSWORD TOKEN [LOGINS]

Starts LOGINS (default 200) concurrent logins of apiuser on URL/sessions,
each on its own connection, and while they run asks URL/kestrel_task/count
with the session TOKEN, one request after another. A login holds its
thread for a second after it succeeds; the counts must not wait for that.
Prints one line:

    RESULT logins=200 login_seconds=13.2 counts=131 p50_ms=1.9 p99_ms=6.5 max_ms=8.0 errors=0
"""
import json
import sys
import threading
import time
import urllib.request


def main():
    url, password, token = sys.argv[1], sys.argv[2], sys.argv[3]
    logins = int(sys.argv[4]) if len(sys.argv) > 4 else 200
    body = json.dumps({"username": "apiuser", "password": password, "scope": "4"}).encode()
    done, errors = [0], [0]
    lock = threading.Lock()

    def login():
        request = urllib.request.Request(url + "/sessions", data=body,
                                         headers={"Content-Type": "application/json"})
        try:
            with urllib.request.urlopen(request, timeout=600) as answer:
                ok = answer.status == 200
        except OSError:
            ok = False
        with lock:
            done[0] += 1
            errors[0] += 0 if ok else 1

    started = time.monotonic()
    threads = [threading.Thread(target=login) for _ in range(logins)]
    for thread in threads:
        thread.start()
    latencies = []
    count = urllib.request.Request(url + "/kestrel_task/count", headers={"X-Auth-Token": token})
    while True:
        with lock:
            if done[0] >= logins:
                break
        begin = time.monotonic()
        try:
            with urllib.request.urlopen(count, timeout=60) as answer:
                answer.read()
                if answer.status != 200:
                    errors[0] += 1
        except OSError:
            errors[0] += 1
        latencies.append((time.monotonic() - begin) * 1000)
        time.sleep(0.05)
    for thread in threads:
        thread.join()
    took = time.monotonic() - started
    latencies.sort()
    pick = lambda q: latencies[min(len(latencies) - 1, int(q * len(latencies)))] if latencies else 0
    print(f"RESULT logins={logins} login_seconds={took:.1f} counts={len(latencies)} "
          f"p50_ms={pick(0.5):.1f} p99_ms={pick(0.99):.1f} "
          f"max_ms={(latencies[-1] if latencies else 0):.1f} errors={errors[0]}")


if __name__ == "__main__":
    main()
