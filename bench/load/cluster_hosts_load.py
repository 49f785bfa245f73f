#!/usr/bin/env python3
"""Load across hosts: scripts/load.sh --cluster --hosts runs this.

Starts the cluster as hosts (scripts/run-cluster.sh --hosts, the programs in
BIN_DIR) and measures, through nginx in its own namespace:
  - the mix (bench/load/mix.lua under wrk) with two gateways, then with one
    (gateway b's host stopped): requests per second, p99, errors;
  - logins per second and their latency with WAIT for a replica (the
    default --state-wait-ms), then with the gateways started again with
    --state-wait-ms 0;
  - the failover window when the Redis primary is killed under load, and
    the answers seen during it.
Prints one "figure: ..." line each. Needs root and network namespaces.

usage: cluster_hosts_load.py SOURCE_DIR BIN_DIR CERT_PEM SECONDS CONNECTIONS
"""
import json
import os
import re
import signal
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../tests/cluster"))
import cluster_faults_test as cluster  # noqa: E402


def wrk(source, host, token, task, cert, seconds, connections):
    env = dict(os.environ, NOX_TOKEN=token, NOX_TASK=str(task), NOX_CERT=cert, NOX_MIX="mix")
    out = subprocess.run(["wrk", "-t2", "-c%d" % connections, "-d%ds" % seconds, "-s",
                          os.path.join(source, "bench/load/mix.lua"), "http://" + host],
                         env=env, capture_output=True, text=True, cwd=source).stdout
    line = next((l for l in out.splitlines() if l.startswith("RESULT ")), "")
    return {k: float(v) for k, v in re.findall(r"(\w+)=([0-9.]+)", line)}


def first_task(host, token):
    _, _, body = cluster.request(host, "GET", "/kestrel_task?limit=1", token)
    data = json.loads(body)["data"]
    return (data[0] if isinstance(data, list) else data)["taskId"]


def logins(host, seconds, threads=4):
    """Logins per second and latency percentiles (ms) of `threads` clients."""
    times, failed = [], [0]
    lock = threading.Lock()
    end = time.time() + seconds

    def run():
        while time.time() < end:
            t = time.time()
            token, _ = cluster.login(host)
            with lock:
                if token:
                    times.append((time.time() - t) * 1000)
                else:
                    failed[0] += 1

    ts = [threading.Thread(target=run) for _ in range(threads)]
    for t in ts:
        t.start()
    for t in ts:
        t.join()
    times.sort()
    pick = lambda q: times[min(len(times) - 1, int(q * len(times)))] if times else 0
    return len(times) / seconds, pick(0.5), pick(0.99), failed[0]


def wait_cost(env, writes=1000):
    """Milliseconds one WAIT 1 adds to a write: `writes` SETs one after the
    other from gateway a's host to the primary, with and without a WAIT
    after each (redis-cli waits for each answer before the next)."""
    primary = env["NOX_REDIS_1_ADDRESS"]

    def timed(lines):
        script = "for i in $(seq %d); do %s; done | redis-cli -h %s >/dev/null" % (
            writes, "; ".join("echo '%s'" % l for l in lines), primary)
        t = time.time()
        cluster.in_ns(env["NOX_GATEWAY_A_NS"], "bash", "-c", script)
        return (time.time() - t) * 1000 / writes

    plain = timed(["SET nox:bench:w v"])
    waited = timed(["SET nox:bench:w v", "WAIT 1 1000"])
    return plain, waited


def restart_gateways(env, cluster_dir, extra):
    for name in ("gateway-a", "gateway-b"):
        cluster.kill_host(env["NOX_%s_NS" % name.upper().replace("-", "_")], signal.SIGTERM)
        command_file = os.path.join(cluster_dir, name, "command")
        with open(command_file) as f:
            command = f.read().strip()
        with open(command_file, "w") as f:
            f.write(command + " " + extra)
        cluster.restart(os.path.join(cluster_dir, name))
    time.sleep(3)  # nginx's fail_timeout, so that both are used again


def main():
    source, bin_dir, cert, seconds, connections = sys.argv[1:6]
    seconds, connections = int(seconds), int(connections)
    why = cluster.lacks()
    if why:
        print("load: --cluster --hosts needs network namespaces: %s" % why)
        return 2
    cluster_dir = tempfile.mkdtemp(prefix="nox-load-hosts-")
    proc, env, _ = cluster.start_cluster(source, bin_dir, cluster_dir, str(200 + os.getpid() % 50))
    try:
        host = env["NOX_NGINX_ADDRESS"] + ":8080"
        token, _ = cluster.login(host)
        task = first_task(host, token)
        two = wrk(source, host, token, task, cert, seconds, connections)
        cluster.kill_host(env["NOX_GATEWAY_B_NS"], signal.SIGTERM)
        time.sleep(1)
        one = wrk(source, host, token, task, cert, seconds, connections)
        cluster.restart(os.path.join(cluster_dir, "gateway-b"))
        time.sleep(3)
        for n, r in ((1, one), (2, two)):
            print("figure: mix through nginx, %d gateway(s): %.0f requests/s, p99 %.1f ms, "
                  "errors %d, time-outs %d" % (n, r.get("rps", 0), r.get("p99_ms", 0),
                                              r.get("errors", 0), r.get("timeouts", 0)))
        plain, waited = wait_cost(env)
        print("figure: a write from a gateway's host to the primary: %.3f ms, with WAIT 1: "
              "%.3f ms (%.3f ms more)" % (plain, waited, waited - plain))
        rate, p50, p99, failed = logins(host, seconds)
        print("figure: logins with WAIT 1 (--state-wait-ms 1000): %.1f/s, p50 %.1f ms, "
              "p99 %.1f ms, refused %d" % (rate, p50, p99, failed))
        restart_gateways(env, cluster_dir, "--state-wait-ms 0")
        rate, p50, p99, failed = logins(host, seconds)
        print("figure: logins without WAIT (--state-wait-ms 0): %.1f/s, p50 %.1f ms, "
              "p99 %.1f ms, refused %d" % (rate, p50, p99, failed))
        tokens = [cluster.login(host)[0] for _ in range(6)]
        cluster.fault_primary_killed(env, host, tokens)
    finally:
        proc.send_signal(signal.SIGTERM)
        proc.wait(timeout=60)
        subprocess.run(["rm", "-rf", cluster_dir])
    return 0


if __name__ == "__main__":
    sys.exit(main())
