#!/usr/bin/env python3
"""Fault tests of the cluster as hosts (scripts/run-cluster.sh --hosts).

Starts the cluster (nginx, two gateways, nox-backend, a Redis primary and its
replica, three sentinels, each in a network namespace of its own), puts a
steady load of logged-in clients on it through nginx, and does to it, one
after the other:
  1. the Redis primary killed: a sentinel promotes the replica; no session
     acknowledged before or during the failover is lost; clients see 200, or
     503 with Retry-After during the failover window only, then carry on with
     their old tokens;
  2. one gateway host's processes killed: no GET fails (nginx passes it
     over); started again, nginx sends to it again;
  3. nox-backend restarted while certificates are imported: 503 only while
     it is down, then 200 again; every import answered 200 is in the
     backend's store afterwards;
  4. one gateway's link down (partitioned from Redis and everything else):
     that gateway answers 503 for a session-bound call and its /healthz says
     why; the other one serves everyone; link up, it serves again.
Then stops the cluster and checks that no namespace, link or process of it
is left. Prints what it measured (the failover window, the answers per
fault) as "figure: ..." lines.

Needs root and network namespaces; exits 77 (ctest: skipped) with the
reason where the machine does not allow them.

usage: cluster_faults_test.py SOURCE_DIR BIN_DIR
"""
import http.client
import json
import os
import signal
import sqlite3
import subprocess
import sys
import tempfile
import threading
import time

SKIP = 77
PASSWORD = "Cluster-Faults-Pw1"


def lacks():
    """Why this machine cannot run the test, or None."""
    if os.geteuid() != 0:
        return "not root: network namespaces are made by root"
    probe = "nox-probe-%d" % os.getpid()
    made = subprocess.run(["ip", "netns", "add", probe], capture_output=True, text=True)
    if made.returncode != 0:
        return "ip netns add fails here (%s)" % made.stderr.strip()
    subprocess.run(["ip", "netns", "del", probe])
    if not os.path.exists("/usr/bin/redis-sentinel"):
        return "/usr/bin/redis-sentinel is missing: run scripts/install-deps.sh"
    return None


class Failure(Exception):
    pass


def check(condition, what):
    if not condition:
        raise Failure(what)


def request(host, method, path, token=None, body=None, timeout=10):
    """(status, headers, body) of one request to host ("ADDRESS:PORT")."""
    conn = http.client.HTTPConnection(host, timeout=timeout)
    headers = {}
    if token:
        headers["X-Auth-Token"] = token
    if body is not None:
        headers["Content-Type"] = "application/json"
        body = json.dumps(body)
    try:
        conn.request(method, path, body=body, headers=headers)
        res = conn.getresponse()
        return res.status, dict(res.getheaders()), res.read().decode("utf-8", "replace")
    finally:
        conn.close()


def login(host):
    status, _, body = request(host, "POST", "/sessions",
                              body={"username": "apiuser", "password": PASSWORD, "scope": "4"})
    if status != 200:
        return None, status
    return json.loads(body)["data"]["token"], status


def in_ns(ns, *command, **kw):
    return subprocess.run(["ip", "netns", "exec", ns] + list(command), capture_output=True,
                          text=True, **kw)


def ns_get(ns, path, token=None):
    """(status, body) of a GET to the gateway in namespace ns, on its loopback."""
    cmd = ["curl", "-s", "-m", "5", "-o", "-", "-w", "\n%{http_code}"]
    if token:
        cmd += ["-H", "X-Auth-Token: " + token]
    out = in_ns(ns, *cmd, "http://127.0.0.1:8080" + path).stdout
    body, _, code = out.rpartition("\n")
    return int(code or 0), body


def kill_host(ns, sig=signal.SIGKILL):
    pids = subprocess.run(["ip", "netns", "pids", ns], capture_output=True, text=True).stdout.split()
    for pid in pids:
        try:
            os.kill(int(pid), sig)
        except ProcessLookupError:
            pass
    deadline = time.time() + 10
    while time.time() < deadline:
        if not subprocess.run(["ip", "netns", "pids", ns], capture_output=True,
                              text=True).stdout.split():
            return
        time.sleep(0.05)
    raise Failure("the processes of %s did not end" % ns)


def restart(piece_dir):
    """Starts a piece again with the command run-cluster.sh kept for it."""
    with open(os.path.join(piece_dir, "command")) as f:
        command = f.read()
    log = os.path.join(piece_dir, "out.log")
    open(log, "w").close()
    subprocess.Popen("%s >>%s 2>&1 &" % (command, log), shell=True).wait()
    deadline = time.time() + 30
    while time.time() < deadline:
        with open(log) as f:
            if "listening on " in f.read():
                return
        time.sleep(0.1)
    raise Failure("%s did not start again" % piece_dir)


class Load:
    """Clients, each with its own token, that GET through nginx in a loop and
    record (time, status, Retry-After) of every answer; with `logins`, one
    more client that logs in again and again and keeps the tokens it got."""

    def __init__(self, host, tokens, logins=False):
        self.host = host
        self.tokens = tokens
        self.logins = logins
        self.answers = []  # (time answered, status, retry_after, time asked)
        self.acknowledged = []  # tokens of logins answered 200 during the load
        self.stop = threading.Event()
        self.lock = threading.Lock()
        self.threads = []

    def _get(self, token):
        while not self.stop.is_set():
            asked = time.time()
            try:
                status, headers, _ = request(self.host, "GET", "/kestrel_task?start=0&limit=5",
                                             token)
                retry = headers.get("Retry-After")
            except OSError as e:
                status, retry = "error: %s" % e, None
            with self.lock:
                self.answers.append((time.time(), status, retry, asked))
            time.sleep(0.01)

    def _login(self):
        while not self.stop.is_set():
            try:
                token, _ = login(self.host)
            except OSError:
                token = None
            if token:
                with self.lock:
                    self.acknowledged.append(token)
            time.sleep(0.05)

    def __enter__(self):
        for token in self.tokens:
            self.threads.append(threading.Thread(target=self._get, args=(token,)))
        if self.logins:
            self.threads.append(threading.Thread(target=self._login))
        for t in self.threads:
            t.start()
        return self

    def __exit__(self, *exc):
        self.stop.set()
        for t in self.threads:
            t.join()

    def statuses(self, since=0.0):
        with self.lock:
            return [a for a in self.answers if a[0] >= since]


def summary(answers):
    counts = {}
    for _, status, _, _ in answers:
        counts[str(status)] = counts.get(str(status), 0) + 1
    return counts


def all_served(host, tokens):
    for token in tokens:
        status, _, body = request(host, "GET", "/kestrel_task?start=0&limit=1", token)
        if status != 200:
            return "a token answered %s: %s" % (status, body[:200])
    return None


def fault_primary_killed(env, host, tokens):
    with Load(host, tokens, logins=True) as load:
        time.sleep(1.5)
        killed = time.time()
        kill_host(env["NOX_REDIS_1_NS"])
        # Until both gateways name the new primary and the clients were served for 2 s.
        deadline = killed + 60
        while time.time() < deadline:
            answers = load.statuses(killed)
            refused = [a for a in answers if a[1] != 200]
            last = refused[-1][0] if refused else killed
            if time.time() - last > 2 and any(a[1] == 200 for a in answers if a[0] > last):
                break
            time.sleep(0.2)
    answers = load.statuses(killed)
    refused = [a for a in answers if a[1] != 200]
    window = (refused[-1][0] - killed) if refused else 0.0
    print("figure: Redis primary killed: failover window %.2f s, answers %s, logins acknowledged "
          "during the load %d" % (window, summary(answers), len(load.acknowledged)))
    for _, status, retry, _ in refused:
        check(status == 503, "an answer other than 200 or 503 during the failover: %s" % status)
        check(retry == "1", "a 503 without Retry-After: 1 (%s)" % retry)
    check(window < 20, "the failover window is %.1f s" % window)
    lost = all_served(host, tokens + load.acknowledged)
    check(lost is None, "a session acknowledged before or during the failover is lost: %s" % lost)
    for gw in ("GATEWAY_A", "GATEWAY_B"):
        status, body = ns_get(env["NOX_%s_NS" % gw], "/healthz")
        state = json.loads(body)["state"]
        check(state["primary"] == env["NOX_REDIS_2_ADDRESS"] + ":6379",
              "%s names primary %s" % (gw, state["primary"]))
        check(state["failovers"] == 1, "%s counts %s failovers" % (gw, state["failovers"]))
        _, metrics = ns_get(env["NOX_%s_NS" % gw], "/metrics")
        check("\nnox_state_failovers_total 1\n" in metrics, "%s /metrics: no failover counted" % gw)
    return window


def served_by(access_log):
    try:
        with open(access_log) as f:
            return sum(1 for _ in f)
    except FileNotFoundError:
        return 0


def fault_gateway_killed(env, host, tokens, cluster_dir):
    gateway_dir = os.path.join(cluster_dir, "gateway-a")
    with Load(host, tokens) as load:
        time.sleep(1)
        killed = time.time()
        kill_host(env["NOX_GATEWAY_A_NS"])
        time.sleep(3)
        restart(gateway_dir)
        back = time.time()
        before = served_by(os.path.join(gateway_dir, "access.log"))
        # nginx tries it again after fail_timeout (2 s).
        time.sleep(4)
        after = served_by(os.path.join(gateway_dir, "access.log"))
    answers = load.statuses(killed)
    print("figure: gateway host killed: answers %s; %d requests to it after it came back"
          % (summary(answers), after - before))
    failed = [a for a in answers if a[1] != 200]
    check(not failed, "GETs failed while a gateway host was down: %s" % summary(failed))
    check(after > before, "nginx sent nothing to the gateway brought back (since %.1f)" % back)


def make_cas(folder, count):
    """PEM files of `count` distinct CA certificates, "fault test CA <i>"."""
    paths = []
    for i in range(count):
        path = os.path.join(folder, "ca%d.pem" % i)
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-sha256", "-days", "30",
                        "-nodes", "-subj", "/CN=fault test CA %d" % i, "-addext",
                        "basicConstraints=critical,CA:TRUE", "-addext",
                        "keyUsage=critical,keyCertSign,cRLSign", "-keyout",
                        os.path.join(folder, "ca%d.key" % i), "-out", path],
                       capture_output=True, check=True)
        paths.append(path)
    return paths


def import_ca(host, token, path):
    """The status of a certificate import of the file at `path`."""
    boundary = "nox-fault-boundary"
    with open(path, "rb") as f:
        pem = f.read()
    body = (b"--" + boundary.encode() + b"\r\n"
            b'Content-Disposition: form-data; name="file"; filename="' +
            os.path.basename(path).encode() + b'"\r\n'
            b"Content-Type: application/x-pem-file\r\n\r\n" + pem + b"\r\n--" +
            boundary.encode() + b"--\r\n")
    conn = http.client.HTTPConnection(host, timeout=30)
    try:
        conn.request("POST", "/kestrel_cert/import_cert", body=body,
                     headers={"X-Auth-Token": token,
                              "Content-Type": "multipart/form-data; boundary=" + boundary})
        res = conn.getresponse()
        res.read()
        return res.status
    finally:
        conn.close()


def fault_backend_restarted(env, host, tokens, cluster_dir):
    backend_dir = os.path.join(cluster_dir, "backend")
    cas = make_cas(cluster_dir, 24)
    imported, import_answers = [], []

    def importer(stop):
        for i, path in enumerate(cas):
            if stop.is_set():
                return
            try:
                status = import_ca(host, tokens[0], path)
            except OSError as e:
                status = "error: %s" % e
            import_answers.append(status)
            if status == 200:
                imported.append(i)
            time.sleep(0.2)

    with Load(host, tokens) as load:
        importing = threading.Thread(target=importer, args=(load.stop,))
        importing.start()
        time.sleep(1)
        stopped = time.time()
        kill_host(env["NOX_BACKEND_NS"], signal.SIGTERM)
        time.sleep(2)
        restart(backend_dir)
        started = time.time()
        time.sleep(3)
    answers = load.statuses(stopped)
    refused = [a for a in answers if a[1] != 200]
    print("figure: nox-backend restarted (down %.1f s): answers %s"
          % (started - stopped, summary(answers)))
    for t, status, _, _ in refused:
        check(status == 503, "an answer other than 200 or 503 while the backend restarted: %s"
              % status)
        # The gateways notice the backend back within their probe's round.
        check(t < started + 1.5, "a 503 %.1f s after the backend was back" % (t - started))
    lost = all_served(host, tokens)
    check(lost is None, "after the backend's restart: %s" % lost)
    importing.join()
    db = sqlite3.connect(os.path.join(backend_dir, "data", "nox.db"))
    subjects = " | ".join(r[0] for r in db.execute("SELECT subject FROM ca_certificates"))
    db.close()
    missing = [i for i in imported if "fault test CA %d" % i not in subjects]
    print("figure: imports during the backend's restart: answers %s, %d acknowledged, %d lost"
          % (summary([(0, a, None, 0) for a in import_answers]), len(imported), len(missing)))
    check(imported, "no import was acknowledged")
    check(not missing, "imported certificates lost: %s" % missing)
    check(all(a in (200, 503) for a in import_answers),
          "an import answered other than 200 or 503: %s" % import_answers)


def fault_partition(env, host, tokens):
    ns = env["NOX_GATEWAY_B_NS"]
    with Load(host, tokens) as load:
        time.sleep(1)
        cut = time.time()
        in_ns(ns, "ip", "link", "set", "eth0", "down")
        time.sleep(2)
        status, body = ns_get(ns, "/kestrel_task?start=0&limit=1", tokens[0])
        health_status, health = ns_get(ns, "/healthz")
        time.sleep(2)
        in_ns(ns, "ip", "link", "set", "eth0", "up")
        healed = time.time()
    answers = load.statuses(cut)
    # A request nginx had already passed to b (or sent on a kept connection
    # to it) waits for the link, and gets b's answer when it is back.
    during = [a for a in answers if a[0] < healed]
    held = [a for a in answers if a[0] >= healed and a[3] < healed]
    print("figure: gateway b cut off: answers through nginx while cut %s, held until the link "
          "was back %s; on b: %d; b's /healthz %d %s"
          % (summary(during), summary(held), status, health_status, health))
    for _, code, retry, _ in held:
        check(code == 200 or (code == 503 and retry == "1"),
              "a request held by the cut answered %s" % code)
    check(status == 503, "the partitioned gateway answered %d: %s" % (status, body[:200]))
    check(health_status == 503, "its /healthz answered %d" % health_status)
    state = json.loads(health)["state"]
    check(not state["reachable"] and state.get("error"), "its /healthz says no why: %s" % health)
    failed = [a for a in during if a[1] != 200]
    check(during and not failed,
          "clients saw failures while one gateway was cut off: %s" % summary(during))
    deadline = healed + 20
    while time.time() < deadline:
        if ns_get(ns, "/kestrel_task?start=0&limit=1", tokens[0])[0] == 200:
            return
        time.sleep(0.2)
    raise Failure("gateway b did not serve again after its link came back")


def leftovers(net_id, cluster_dir):
    left = []
    names = subprocess.run(["ip", "netns", "list"], capture_output=True, text=True).stdout
    left += [l.split()[0] for l in names.splitlines() if l.startswith("nox%s-" % net_id)]
    links = subprocess.run(["ip", "-o", "link", "show"], capture_output=True, text=True).stdout
    left += [l.split(":")[1].strip() for l in links.splitlines() if "nox-br-%s" % net_id in l]
    procs = subprocess.run(["pgrep", "-f", cluster_dir], capture_output=True, text=True).stdout
    left += ["pid " + p for p in procs.split()]
    return left


def start_cluster(source, bin_dir, cluster_dir, net_id):
    env = dict(os.environ, NOX_CLUSTER_BIN=bin_dir, NOX_CLUSTER_DIR=cluster_dir,
               NOX_INIT_PASSWORD=PASSWORD, CLUSTER_NET_ID=net_id)
    proc = subprocess.Popen([os.path.join(source, "scripts/run-cluster.sh"), "--hosts"], env=env,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    lines = []
    for line in proc.stdout:
        lines.append(line)
        if line.startswith("cluster ready"):
            break
    else:
        proc.wait()
        raise Failure("the cluster did not start:\n" + "".join(lines))
    # Keep reading its output, so that it never blocks on a full pipe.
    threading.Thread(target=lambda: [lines.append(l) for l in proc.stdout], daemon=True).start()
    hosts = {}
    with open(os.path.join(cluster_dir, "hosts.env")) as f:
        for line in f:
            key, _, value = line.strip().partition("=")
            hosts[key] = value
    return proc, hosts, lines


def main():
    source, bin_dir = sys.argv[1], sys.argv[2]
    why = lacks()
    if why:
        print("SKIP: the cluster fault tests need network namespaces: %s" % why)
        return SKIP
    net_id = str(200 + os.getpid() % 50)
    cluster_dir = tempfile.mkdtemp(prefix="nox-cluster-faults-")
    proc = None
    failure = None
    started = time.time()
    try:
        proc, env, _ = start_cluster(source, bin_dir, cluster_dir, net_id)
        host = env["NOX_NGINX_ADDRESS"] + ":8080"
        tokens = [login(host)[0] for _ in range(6)]
        check(all(tokens), "the clients could not log in")
        faults = {
            "primary": lambda: fault_primary_killed(env, host, tokens),
            "gateway": lambda: fault_gateway_killed(env, host, tokens, cluster_dir),
            "backend": lambda: fault_backend_restarted(env, host, tokens, cluster_dir),
            "partition": lambda: fault_partition(env, host, tokens),
        }
        # NOX_CLUSTER_FAULTS=partition,... runs only those (while working on one).
        chosen = os.environ.get("NOX_CLUSTER_FAULTS", ",".join(faults)).split(",")
        for name in chosen:
            faults[name]()
    except Failure as e:
        failure = str(e)
    finally:
        if proc is not None:
            proc.send_signal(signal.SIGTERM)
            try:
                proc.wait(timeout=60)
            except subprocess.TimeoutExpired:
                proc.kill()
    left = leftovers(net_id, cluster_dir)
    if not left and not failure:
        subprocess.run(["rm", "-rf", cluster_dir])
    print("figure: the whole fault run took %.0f s" % (time.time() - started))
    if failure:
        print("FAILED: %s (logs in %s)" % (failure, cluster_dir))
        return 1
    if left:
        print("FAILED: the cluster left behind: %s" % ", ".join(left))
        return 1
    print("cluster fault tests passed; nothing left behind")
    return 0


if __name__ == "__main__":
    sys.exit(main())
