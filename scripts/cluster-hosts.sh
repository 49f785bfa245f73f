# The cluster as hosts: sourced by scripts/run-cluster.sh --hosts after the
# build, with scripts/cluster-lib.sh loaded. Makes the namespaces and the
# bridge, starts every piece in its own, prints the addresses (and writes
# them to $CLUSTER_DIR/hosts.env), and runs until SIGINT or SIGTERM. The EXIT
# trap removes the namespaces, their links and processes and the bridge,
# whether the start failed half-way or the cluster ran to the end. Pieces
# that end meanwhile (the fault tests kill them) are reported, not fatal.

CLUSTER_NET_ID=${CLUSTER_NET_ID:-$(($$ % 250))}
export CLUSTER_NET_ID
NET="10.213.$CLUSTER_NET_ID"
export CLUSTER_DIR="${NOX_CLUSTER_DIR:-$ROOT/cluster-data-hosts}"
HOST_NAMES=(nginx gateway-a gateway-b backend redis-1 redis-2 sentinel-1 sentinel-2 sentinel-3)

hosts_cleanup() {
  cluster_stop
  cluster_hosts_down
  echo "run-cluster: namespaces, links and processes removed"
}
trap hosts_cleanup EXIT
trap 'exit 130' INT TERM

# The address of host NAME: its place in HOST_NAMES, from .2.
host_address() {
  local i
  for i in "${!HOST_NAMES[@]}"; do
    [ "${HOST_NAMES[$i]}" = "$1" ] && { echo "$NET.$((i + 2))"; return; }
  done
}

# Starts a piece in host NAME's namespace: "on NAME cluster_gateway ...".
on() {
  local name=$1
  shift
  CLUSTER_HOST=$(cluster_host_ns "$name") CLUSTER_BIND=0.0.0.0 "$@"
}

# Waits up to 20 s until the sentinels know the replica and each other (a
# failover needs both) and the replica is in step with the primary.
wait_sentinels() {
  local master
  for _ in $(seq 1 200); do
    master=$(on sentinel-1 cluster_exec redis-cli -p 26379 sentinel master nox 2>/dev/null | tr '\n' ' ')
    if [[ $master == *"num-slaves 1 "* && $master == *"num-other-sentinels 2 "* ]] &&
       on redis-1 cluster_exec redis-cli info replication 2>/dev/null | grep -q 'state=online'; then
      return 0
    fi
    sleep 0.1
  done
  echo "run-cluster: the sentinels did not learn the replica and each other within 20 s" >&2
  return 1
}

start_hosts() {
  mkdir -p "$CLUSTER_DIR"
  cluster_log "bridge $(cluster_bridge) $NET.1/24, namespaces $(cluster_host_ns '*')"
  cluster_hosts_up "$NET" "${HOST_NAMES[@]}" || { echo "run-cluster: cannot make the namespaces"; return 1; }
  local primary sentinels="" s
  primary=$(host_address redis-1)
  cluster_log "Redis primary on $primary:6379, replica on $(host_address redis-2):6379"
  on redis-1 cluster_redis 6379 redis-1 --protected-mode no || return 1
  on redis-2 cluster_redis 6379 redis-2 --protected-mode no --replicaof "$primary" 6379 || return 1
  for s in sentinel-1 sentinel-2 sentinel-3; do
    cluster_log "$s on $(host_address "$s"):26379"
    on "$s" cluster_sentinel "$s" 26379 "$primary" 6379 || return 1
    sentinels+="${sentinels:+,}$(host_address "$s"):26379"
  done
  STATE="redis-sentinel://$sentinels/nox"
  wait_sentinels || return 1
  cluster_log "nox-backend on $(host_address backend):7070"
  on backend cluster_backend 7070 "${NOX_INIT_PASSWORD:-}" --simulate "${NOX_SIMULATE:-2}" || return 1
  local shared=(--state "$STATE" --backend "tcp://$(host_address backend):7070"
                --trusted-proxies "$(host_address nginx)/32")
  for s in gateway-a gateway-b; do
    cluster_log "nox-gateway ${s#gateway-} on $(host_address "$s"):8080"
    on "$s" cluster_gateway "${s#gateway-}" 8080 "${shared[@]}" || return 1
  done
  cluster_log "nginx on $(host_address nginx):8080, round robin over both"
  on nginx cluster_nginx 8080 "$(host_address gateway-a):8080" "$(host_address gateway-b):8080" ||
    return 1
}

write_hosts_env() {
  local name var
  {
    echo "NOX_NET_ID=$CLUSTER_NET_ID"
    echo "NOX_STATE=$STATE"
    for name in "${HOST_NAMES[@]}"; do
      var=$(echo "$name" | tr 'a-z-' 'A-Z_')
      echo "NOX_${var}_ADDRESS=$(host_address "$name")"
      echo "NOX_${var}_NS=$(cluster_host_ns "$name")"
    done
  } >"$CLUSTER_DIR/hosts.env"
}

if ! start_hosts; then
  echo "run-cluster: the cluster did not start; logs in $CLUSTER_DIR"
  exit 1
fi
write_hosts_env
BASE="http://$(host_address nginx):8080"
PASSWORD=$(sed -n 's/^demo users .*; password: //p' "$CLUSTER_DIR/backend/out.log")
echo
echo "The cluster answers on $BASE (nginx in its own namespace); Ctrl-C stops it and removes"
echo "the namespaces. Addresses in $CLUSTER_DIR/hosts.env; a shell on a host:"
echo "  ip netns exec $(cluster_host_ns gateway-a) bash"
[ -n "$PASSWORD" ] && echo "Demo users' password (first start only): $PASSWORD"
echo "cluster ready"

# Until SIGINT or SIGTERM; a piece that ends is reported once.
declare -A reported=()
while :; do
  for pid in "${CLUSTER_PIDS[@]}"; do
    if [ -z "${reported[$pid]:-}" ] && ! kill -0 "$pid" 2>/dev/null; then
      echo "run-cluster: a process of the cluster ended (pid $pid); the others go on"
      reported[$pid]=1
    fi
  done
  sleep 1
done
