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

CLUSTER_PIDS=()

cluster_log() { echo "cluster: $*"; }

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

cluster_redis() {  # PORT
  local port=$1 dir="$CLUSTER_DIR/redis"
  mkdir -p "$dir"
  /usr/bin/redis-server --port "$port" --bind 127.0.0.1 --dir "$dir" --save "" \
    --appendonly yes --appendfsync everysec --daemonize no >"$dir/redis.log" 2>&1 &
  CLUSTER_PIDS+=($!)
  for _ in $(seq 1 100); do
    redis-cli -p "$port" ping 2>/dev/null | grep -q PONG && return 0
    sleep 0.1
  done
  cat "$dir/redis.log" >&2
  return 1
}

cluster_backend() {  # PORT PASSWORD [more nox-backend options...]
  local port=$1 dir="$CLUSTER_DIR/backend"
  mkdir -p "$dir"
  local args=(--listen "127.0.0.1:$port" --data "$dir/data" --log "$dir/trace.log")
  [ -n "${2:-}" ] && args+=(--init-password "$2")
  shift 2 || shift $#
  args+=("$@")
  "$CLUSTER_BIN/nox-backend" "${args[@]}" >"$dir/out.log" 2>&1 &
  CLUSTER_PIDS+=($!)
  cluster_wait_listening "$dir/out.log" "$!"
}

cluster_gateway() {  # NAME PORT [more nox-gateway options...]
  local name=$1 port=$2 dir="$CLUSTER_DIR/gateway-$1"
  shift 2
  mkdir -p "$dir"
  "$CLUSTER_BIN/nox-gateway" --listen "127.0.0.1:$port" --data "$dir/data" \
    --log "$dir/trace.log" --access-log "$dir/access.log" "$@" >"$dir/out.log" 2>&1 &
  CLUSTER_PIDS+=($!)
  cluster_wait_listening "$dir/out.log" "$!"
}

cluster_nginx() {  # PORT GATEWAY_PORT...
  local port=$1 dir="$CLUSTER_DIR/nginx" servers=""
  shift
  for p in "$@"; do servers+="    server 127.0.0.1:$p max_fails=1 fail_timeout=2s;"$'\n'; done
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
    listen 127.0.0.1:$port;
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
      proxy_next_upstream error timeout;
    }
  }
}
CONF
  /usr/sbin/nginx -c "$dir/nginx.conf" -g 'daemon off;' 2>>"$dir/error.log" &
  CLUSTER_PIDS+=($!)
  for _ in $(seq 1 100); do
    curl -sf -o /dev/null "http://127.0.0.1:$port/healthz" && return 0
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
