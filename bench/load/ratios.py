#!/usr/bin/env python3
"""The request path's ratios: each route against /healthz, /healthz against
nginx, the mix's p99, with the in-process backend and with nox-backend over
TCP, for one build or alternating with another.

    ratios.py BIN_DIR [OTHER_BIN_DIR] [--rounds N] [--seconds S] [--connections C]

BIN_DIR holds nox-gateway and nox-backend (the plug-in beside them, as a
build lays them out). With OTHER_BIN_DIR the two builds take turns, round
after round (this one, then the other), so that a noisy minute hurts both
alike; every figure printed is the median of the rounds. Everything runs on
127.0.0.1: the gateway and nginx both write their access logs to files.
Prints one RESULT line per run and, at the end, the medians, the ratios and
the targets; exits 0 (the targets are reported, not enforced).
"""
import argparse
import json
import os
import re
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time
import urllib.request

HERE = os.path.dirname(os.path.abspath(__file__))
MIX_LUA = os.path.join(HERE, "mix.lua")
PASSWORD = "ratios-%d" % int(time.time())
HEALTHZ = ['{"status":"ok"}']  # the gateway's /healthz answer, which nginx serves as a file


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_listening(path, proc, seconds=30):
    end = time.time() + seconds
    while time.time() < end:
        if proc.poll() is not None:
            break
        try:
            with open(path) as f:
                for line in f:
                    if line.startswith("listening on "):
                        return line.split()[2]
        except FileNotFoundError:
            pass
        time.sleep(0.1)
    raise RuntimeError("did not start: " + open(path).read())


def stop(proc):
    if proc and proc.poll() is None:
        proc.send_signal(signal.SIGTERM)
        try:
            proc.wait(30)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait()


def wrk(url, mix, connections, seconds, token="", task=""):
    env = dict(os.environ, NOX_TOKEN=token, NOX_TASK=task, NOX_MIX=mix)
    out = subprocess.run(["wrk", "-t2", "-c%d" % connections, "-d%ds" % seconds, "-s", MIX_LUA, url],
                         env=env, capture_output=True, text=True, check=True).stdout
    line = next(l for l in out.splitlines() if l.startswith("RESULT "))
    return {k: float(v) for k, v in re.findall(r"(\w+)=([0-9.]+)", line)}


def login(url):
    body = json.dumps({"username": "apiuser", "password": PASSWORD, "scope": "4",
                       "language": "en"}).encode()
    request = urllib.request.Request(url + "/sessions", data=body,
                                     headers={"Content-Type": "application/json"})
    with urllib.request.urlopen(request, timeout=30) as answer:
        token = answer.headers["X-Auth-Token"]
    request = urllib.request.Request(url + "/kestrel_task?limit=1", headers={"X-Auth-Token": token})
    with urllib.request.urlopen(request, timeout=30) as answer:
        data = json.load(answer)["data"]
    return token, str((data[0] if isinstance(data, list) else data)["taskId"])


def run_gateway(bin_dir, backend, work, args):
    """One gateway (and nox-backend for backend == "tcp"); its figures."""
    folder = tempfile.mkdtemp(dir=work)
    procs = []
    try:
        options = []
        if backend == "tcp":
            out = os.path.join(folder, "backend.out")
            b = subprocess.Popen([os.path.join(bin_dir, "nox-backend"), "--listen", "127.0.0.1:0",
                                  "--data", os.path.join(folder, "backend"), "--init-password",
                                  PASSWORD, "--log", os.path.join(folder, "backend.log")],
                                 stdout=open(out, "w"), stderr=subprocess.STDOUT)
            procs.append(b)
            options = ["--backend", "tcp://" + wait_listening(out, b)]
        out = os.path.join(folder, "gateway.out")
        g = subprocess.Popen([os.path.join(bin_dir, "nox-gateway"), "--listen", "127.0.0.1:0",
                              "--data", os.path.join(folder, "data"), "--init-password", PASSWORD,
                              "--log", os.path.join(folder, "trace.log"), "--log-level", "warn",
                              "--access-log", os.path.join(folder, "access.log")] + options,
                             stdout=open(out, "w"), stderr=subprocess.STDOUT)
        procs.append(g)
        url = "http://" + wait_listening(out, g)
        token, task = login(url)
        with urllib.request.urlopen(url + "/healthz", timeout=30) as answer:
            HEALTHZ[0] = answer.read().decode()
        c, s = args.connections, args.seconds
        return {
            "healthz": wrk(url, "/healthz", c, s),
            "detail": wrk(url, "/kestrel_task/%s?LANGUAGE=zh" % task, c, s, token, task),
            "list": wrk(url, "/kestrel_task?limit=10", c, s, token, task),
            "mix": wrk(url, "mix", c, s, token, task),
        }
    finally:
        for p in reversed(procs):
            stop(p)


def run_nginx(work, args):
    folder = tempfile.mkdtemp(dir=work)
    os.chmod(work, 0o755)
    os.chmod(folder, 0o755)
    with open(os.path.join(folder, "healthz"), "w") as f:
        f.write(HEALTHZ[0])
    os.chmod(os.path.join(folder, "healthz"), 0o644)
    port = free_port()
    conf = os.path.join(folder, "nginx.conf")
    with open(conf, "w") as f:
        f.write("""worker_processes 2;
pid {d}/nginx.pid;
error_log {d}/error.log;
events {{ worker_connections 1024; }}
http {{
  access_log {d}/access.log;
  client_body_temp_path {d}; proxy_temp_path {d};
  fastcgi_temp_path {d}; uwsgi_temp_path {d}; scgi_temp_path {d};
  default_type application/json;
  server {{ listen 127.0.0.1:{p}; root {d}; }}
}}
""".format(d=folder, p=port))
    n = subprocess.Popen(["/usr/sbin/nginx", "-c", conf, "-g", "daemon off;"])
    try:
        time.sleep(0.5)
        return wrk("http://127.0.0.1:%d" % port, "/healthz", args.connections, args.seconds)
    finally:
        stop(n)


def median(runs, *path):
    values = []
    for run in runs:
        value = run
        for key in path:
            value = value[key]
        values.append(value)
    return statistics.median(values)


def report(name, runs, nginx):
    rps = {k: median(runs, b, k, "rps") for b in ("inproc",) for k in ("healthz", "detail", "list")}
    tcp = {k: median(runs, "tcp", k, "rps") for k in ("healthz", "detail", "list")}
    mix_p99 = median(runs, "inproc", "mix", "p99_ms")
    mix_errors = max(r["inproc"]["mix"]["errors"] + r["tcp"]["mix"]["errors"] for r in runs)
    print("%s: medians of %d runs" % (name, len(runs)))
    for k in ("healthz", "detail", "list"):
        print("  %-8s in process %9.0f/s   tcp backend %9.0f/s" % (k, rps[k], tcp[k]))
    print("  mix p99 %.2f ms (tcp backend %.2f ms), nginx %.0f/s" %
          (mix_p99, median(runs, "tcp", "mix", "p99_ms"), nginx))
    detail, listing = rps["detail"] / rps["healthz"], rps["list"] / rps["healthz"]
    tcp_detail, tcp_list = tcp["detail"] / tcp["healthz"], tcp["list"] / tcp["healthz"]
    checks = [
        ("task detail / healthz", detail, ">= 0.8", detail >= 0.8),
        ("task list of 10 / healthz", listing, ">= 0.5", listing >= 0.5),
        ("healthz / nginx", rps["healthz"] / nginx, ">= 1.0", rps["healthz"] / nginx >= 1.0),
        ("mix p99 ms", mix_p99, "< 5", mix_p99 < 5),
        ("mix errors", mix_errors, "== 0", mix_errors == 0),
        ("tcp detail ratio / in-process", tcp_detail / detail, ">= 0.7", tcp_detail / detail >= 0.7),
        ("tcp list ratio / in-process", tcp_list / listing, ">= 0.7", tcp_list / listing >= 0.7),
    ]
    for label, value, target, ok in checks:
        print("  %-32s %8.3f  target %-7s %s" % (label, value, target, "ok" if ok else "MISSED"))
    return rps


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("bin_dir")
    parser.add_argument("other_bin_dir", nargs="?")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--seconds", type=int, default=10)
    parser.add_argument("--connections", type=int, default=64)
    args = parser.parse_args()
    if not shutil.which("wrk"):
        sys.exit("ratios: wrk is not installed")
    builds = [("this build", args.bin_dir)]
    if args.other_bin_dir:
        builds.append(("other build", args.other_bin_dir))
    work = tempfile.mkdtemp(prefix="nox-ratios-")
    runs = {name: [] for name, _ in builds}
    nginx = []
    try:
        for round_ in range(1, args.rounds + 1):
            for name, bin_dir in builds:
                run = {b: run_gateway(bin_dir, b, work, args) for b in ("inproc", "tcp")}
                runs[name].append(run)
                for b in ("inproc", "tcp"):
                    print("RESULT round=%d build=%s backend=%s %s" % (
                        round_, name.split()[0], b,
                        " ".join("%s_rps=%.0f" % (k, run[b][k]["rps"])
                                 for k in ("healthz", "detail", "list", "mix")) +
                        " mix_p99_ms=%.2f" % run[b]["mix"]["p99_ms"]), flush=True)
            nginx.append(run_nginx(work, args)["rps"])
            print("RESULT round=%d nginx_rps=%.0f" % (round_, nginx[-1]), flush=True)
    finally:
        shutil.rmtree(work, ignore_errors=True)
    base = statistics.median(nginx)
    figures = {name: report(name, runs[name], base) for name, _ in builds}
    if len(builds) == 2:
        mine, other = figures["this build"], figures["other build"]
        print("this build / other build: " + ", ".join(
            "%s %.3f" % (k, mine[k] / other[k]) for k in ("healthz", "detail", "list")))


if __name__ == "__main__":
    main()
