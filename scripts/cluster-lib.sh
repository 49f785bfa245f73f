# Shell functions that start the pieces of a gateway cluster on loopback:
# redis-server, nox-backend, nox-gateway instances and nginx as the balancer.
# Sourced by scripts/run-cluster.sh and scripts/load.sh; not run on its own.
#
#   CLUSTER_DIR=/tmp/x CLUSTER_BIN=build-run/bin
#   cluster_redis 6380            # redis-server, data in $CLUSTER_DIR/redis (append-only)
#   cluster_backend 7070 PW ARGS..  # nox-backend, data in $CLUSTER_DIR/backend
#   cluster_gateway a 8081 ARGS.. # nox-gateway named a, with --state and --backend
#   cluster_nginx 8080 8081 8082  # nginx on 8080, round robin over the gateways
#   cluster_stop                  # stops everything started (also on exit)
#
# Each start waits for its piece to answer and fails (return 1, with the
# piece's log) when it does not. PIDs are kept in CLUSTER_PIDS.
#
# As hosts (scripts/run-cluster.sh --hosts): each piece in a network
# namespace of its own with one address on a bridge. CLUSTER_HOST names the
# namespace the next piece starts in, CLUSTER_BIND the address it listens on
# (default 127.0.0.1; 0.0.0.0 in a namespace, so that it also answers on the
# namespace's loopback):
#   cluster_hosts_up 10.213.7 a b redis1   # bridge nox-br-7 at .1, hosts at .2, .3, ...
#   CLUSTER_HOST=$(cluster_host_ns a) CLUSTER_BIND=0.0.0.0 cluster_gateway a 8080 ...
#   cluster_hosts_down                     # kills what runs in them, removes it all

CLUSTER_PIDS=()
CLUSTER_HOSTS=()  # the namespaces made by cluster_hosts_up, in order

cluster_log() { echo "cluster: $*"; }

# Runs "$@" in the namespace CLUSTER_HOST when one is set.
cluster_exec() {
  if [ -n "${CLUSTER_HOST:-}" ]; then ip netns exec "$CLUSTER_HOST" "$@"; else "$@"; fi
}

# Starts "$@" as cluster_exec would, in the background, its output in LOG,
# and keeps the command line in DIR/command, so that a fault test can start
# the piece again after killing it.
cluster_spawn() {  # DIR LOG COMMAND...
  local dir=$1 log=$2
  shift 2
  if [ -n "${CLUSTER_HOST:-}" ]; then set -- ip netns exec "$CLUSTER_HOST" "$@"; fi
  printf '%q ' "$@" >"$dir/command"
  "$@" >"$log" 2>&1 &
  CLUSTER_PIDS+=($!)
}

cluster_bind() { echo "${CLUSTER_BIND:-127.0.0.1}"; }

# Waits up to 30 s for "listening on" in file $1 while pid $2 lives.
cluster_wait_listening() {
  for _ in $(seq 1 300); do
    grep -q '^listening on ' "$1" 2>/dev/null && return 0
    kill -0 "$2" 2>/dev/null || break
    sleep 0.1
  done
  cat "$1" >&2
  return 1
}

# Waits up to 10 s for redis-server (or a sentinel) on PORT to answer PING.
cluster_wait_redis() {  # PORT LOG
  for _ in $(seq 1 100); do
    cluster_exec redis-cli -p "$1" ping 2>/dev/null | grep -q PONG && return 0
    sleep 0.1
  done
  cat "$2" >&2
  return 1
}

cluster_redis() {  # PORT [NAME [more redis-server options...]]
  local port=$1 name=${2:-redis}
  local dir="$CLUSTER_DIR/$name"
  shift $(($# < 2 ? $# : 2))
  mkdir -p "$dir"
  cluster_spawn "$dir" "$dir/redis.log" /usr/bin/redis-server --port "$port" \
    --bind "$(cluster_bind)" --dir "$dir" --save "" --appendonly yes --appendfsync everysec \
    --daemonize no "$@"
  cluster_wait_redis "$port" "$dir/redis.log"
}

# A sentinel watching the primary HOST:PORT as master "nox" (quorum 2),
# quick to act: down after 1 s, a failover retried after 3 s.
cluster_sentinel() {  # NAME PORT PRIMARY_HOST PRIMARY_PORT
  local dir="$CLUSTER_DIR/$1"
  mkdir -p "$dir"
  cat >"$dir/sentinel.conf" <<CONF
sentinel monitor nox $3 $4 2
sentinel down-after-milliseconds nox 1000
sentinel failover-timeout nox 3000
CONF
  # Protected mode would refuse the other hosts: the bind address limits it.
  cluster_spawn "$dir" "$dir/redis.log" /usr/bin/redis-sentinel "$dir/sentinel.conf" \
    --port "$2" --bind "$(cluster_bind)" --protected-mode no --dir "$dir" --daemonize no
  cluster_wait_redis "$2" "$dir/redis.log"
}

cluster_backend() {  # PORT PASSWORD [more nox-backend options...]
  local port=$1 dir="$CLUSTER_DIR/backend"
  mkdir -p "$dir"
  local args=(--listen "$(cluster_bind):$port" --data "$dir/data" --log "$dir/trace.log")
  [ -n "${2:-}" ] && args+=(--init-password "$2")
  shift 2 || shift $#
  args+=("$@")
  cluster_spawn "$dir" "$dir/out.log" "$CLUSTER_BIN/nox-backend" "${args[@]}"
  cluster_wait_listening "$dir/out.log" "$!"
}

cluster_gateway() {  # NAME PORT [more nox-gateway options...]
  local name=$1 port=$2 dir="$CLUSTER_DIR/gateway-$1"
  shift 2
  mkdir -p "$dir"
  cluster_spawn "$dir" "$dir/out.log" "$CLUSTER_BIN/nox-gateway" --listen "$(cluster_bind):$port" \
    --data "$dir/data" --log "$dir/trace.log" --access-log "$dir/access.log" "$@"
  cluster_wait_listening "$dir/out.log" "$!"
}

cluster_nginx() {  # PORT GATEWAY_PORT|GATEWAY_HOST:PORT...
  local port=$1 dir="$CLUSTER_DIR/nginx" servers="" p
  shift
  for p in "$@"; do
    [[ $p == *:* ]] || p="127.0.0.1:$p"
    servers+="    server $p max_fails=1 fail_timeout=2s;"$'\n'
  done
  mkdir -p "$dir/temp"
  # Workers may run as another user: they only need the temp folder.
  chmod 1777 "$dir/temp"
  cat >"$dir/nginx.conf" <<CONF
worker_processes 2;
pid $dir/nginx.pid;
error_log $dir/error.log warn;
events { worker_connections 4096; }
http {
  access_log off;
  client_body_temp_path $dir/temp; proxy_temp_path $dir/temp;
  fastcgi_temp_path $dir/temp; uwsgi_temp_path $dir/temp; scgi_temp_path $dir/temp;
  # Round robin, no sticky sessions: every gateway serves every session.
  upstream gateways {
$servers    keepalive 64;
  }
  server {
    listen $(cluster_bind):$port;
    client_max_body_size 3m;
    # Server-sent events go out as they come: no buffering, and a stream
    # may stay quiet between the gateway's heartbeats.
    location ~ ^(/v1)?/events\$ {
      proxy_pass http://gateways;
      proxy_http_version 1.1;
      proxy_set_header Connection "";
      proxy_set_header Host \$host;
      proxy_set_header X-Forwarded-For \$remote_addr;
      proxy_buffering off;
      proxy_read_timeout 1h;
    }
    location / {
      proxy_pass http://gateways;
      proxy_http_version 1.1;
      proxy_set_header Connection "";
      proxy_set_header Host \$host;
      # The client as nginx sees it, replacing whatever the client sent:
      # gateways started with --trusted-proxies believe this one entry.
      proxy_set_header X-Forwarded-For \$remote_addr;
      # A gateway that is gone (refused, or silent for a second) is passed
      # over for the next one; only requests that may be repeated are.
      proxy_connect_timeout 1s;
      proxy_next_upstream error timeout;
    }
  }
}
CONF
  cluster_spawn "$dir" "$dir/out.log" /usr/sbin/nginx -c "$dir/nginx.conf" -g 'daemon off;'
  for _ in $(seq 1 100); do
    cluster_exec curl -sf -o /dev/null "http://127.0.0.1:$port/healthz" && return 0
    sleep 0.1
  done
  cat "$dir/error.log" >&2
  return 1
}

cluster_stop() {
  local pid
  for ((i = ${#CLUSTER_PIDS[@]} - 1; i >= 0; i--)); do
    pid=${CLUSTER_PIDS[$i]}
    kill -TERM "$pid" 2>/dev/null || true
  done
  for pid in "${CLUSTER_PIDS[@]}"; do wait "$pid" 2>/dev/null || true; done
  CLUSTER_PIDS=()
}

# --- Hosts: network namespaces on a bridge -------------------------------

# The namespace and the bridge of this cluster (CLUSTER_NET_ID, default the
# shell's pid modulo 250, keeps two clusters apart).
cluster_host_ns() { echo "nox${CLUSTER_NET_ID:-$(($$ % 250))}-$1"; }
cluster_bridge() { echo "nox-br-${CLUSTER_NET_ID:-$(($$ % 250))}"; }

# What --hosts needs and this machine lacks, one line each; nothing when
# it has it all.
cluster_hosts_lacks() {
  [ "$(id -u)" -eq 0 ] || echo "root (network namespaces are made by root): run it as root or with sudo"
  command -v ip >/dev/null 2>&1 || echo "ip from iproute2: scripts/install-deps.sh installs it"
  [ -x /usr/bin/redis-sentinel ] || echo "redis-sentinel: scripts/install-deps.sh installs it"
  if [ "$(id -u)" -eq 0 ] && command -v ip >/dev/null 2>&1; then
    local probe
    probe="$(cluster_host_ns probe)"
    if ip netns add "$probe" 2>/dev/null; then
      ip netns del "$probe"
    else
      echo "network namespaces (ip netns add fails here: a container without CAP_SYS_ADMIN?)"
    fi
  fi
}

# Makes the bridge (PREFIX.1) and one namespace per NAME (PREFIX.2, .3, ...
# in order), each with a veth pair into the bridge and its loopback up.
cluster_hosts_up() {  # PREFIX NAME...
  local prefix=$1 bridge i=2 name ns
  shift
  bridge=$(cluster_bridge)
  # A bridge of that name belongs to another cluster: leave it alone.
  ip link add "$bridge" type bridge || { echo "cluster: $bridge exists (CLUSTER_NET_ID taken?)" >&2; return 1; }
  CLUSTER_BRIDGE_MADE=1
  ip addr add "$prefix.1/24" dev "$bridge"
  ip link set "$bridge" up
  for name in "$@"; do
    ns=$(cluster_host_ns "$name")
    ip netns add "$ns" || { echo "cluster: namespace $ns exists (CLUSTER_NET_ID taken?)" >&2; return 1; }
    CLUSTER_HOSTS+=("$ns")
    ip link add "$bridge-$i" type veth peer name eth0 netns "$ns" || return 1
    ip link set "$bridge-$i" master "$bridge" up
    ip -n "$ns" addr add "$prefix.$i/24" dev eth0
    ip -n "$ns" link set eth0 up
    ip -n "$ns" link set lo up
    i=$((i + 1))
  done
}

# Kills every process in the namespaces made, then removes them and the
# bridge; idempotent, and quiet about what is already gone.
cluster_hosts_down() {
  local ns pids
  for ns in "${CLUSTER_HOSTS[@]}"; do
    pids=$(ip netns pids "$ns" 2>/dev/null || true)
    [ -n "$pids" ] && kill -TERM $pids 2>/dev/null
  done
  for _ in $(seq 1 50); do
    pids=""
    for ns in "${CLUSTER_HOSTS[@]}"; do pids+=$(ip netns pids "$ns" 2>/dev/null || true); done
    [ -z "$pids" ] && break
    sleep 0.1
  done
  local i=2
  for ns in "${CLUSTER_HOSTS[@]}"; do
    pids=$(ip netns pids "$ns" 2>/dev/null || true)
    [ -n "$pids" ] && kill -KILL $pids 2>/dev/null
    # The link now: a namespace's own links go with it only later.
    ip link del "$(cluster_bridge)-$i" 2>/dev/null || true
    ip netns del "$ns" 2>/dev/null || true
    i=$((i + 1))
  done
  CLUSTER_HOSTS=()
  [ "${CLUSTER_BRIDGE_MADE:-0}" = 1 ] && ip link del "$(cluster_bridge)" 2>/dev/null
  CLUSTER_BRIDGE_MADE=0
}
