#!/usr/bin/env bash
# Throw-away storage engines on loopback for the service's tests and benchmarks: a PostgreSQL cluster and a
# single-node Ceph object gateway (one monitor, one OSD on an in-memory store, the S3 gateway).
#
# Usage: scripts/engines.sh start DIR [postgres] [gateway]   (both when none is named)
#        scripts/engines.sh stop DIR
#        scripts/engines.sh halt DIR postgres|radosgw     (stops the server and keeps its data: an outage)
#        scripts/engines.sh resume DIR postgres|radosgw   (the same server again, on the same port)
#
# start leaves DIR/engines.env, one KEY=VALUE a line, for the programs that use the engines:
#   KIV_POSTGRES  libpq connection URI of an empty database "kiv"
#   KIV_S3_ENDPOINT, KIV_S3_REGION, KIV_S3_ACCESS_KEY, KIV_S3_SECRET_KEY  the gateway and a user of it
# and prints each engine's start time and resident memory. stop ends only the processes that start wrote down
# under DIR and removes what they kept. Every wait is bounded (KIV_ENGINES_WAIT_SECONDS, 120 by default); a
# failed start stops what it had started. The OSD keeps objects in memory, at most KIV_GATEWAY_MEMORY_BYTES
# (3 GiB by default).
#
# PostgreSQL refuses to run as root: as root, the cluster runs as the "postgres" user that Debian's package
# creates, in a folder of its own under /tmp (DIR may lie where that user cannot reach).
set -euo pipefail

wait_seconds=${KIV_ENGINES_WAIT_SECONDS:-120}
pg_bin=$(ls -d /usr/lib/postgresql/*/bin 2>/dev/null | sort -V | tail -1)

fail() {
  echo "engines: $*" >&2
  exit 1
}

free_port() {
  python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# until SECONDS_BOUND COMMAND...: runs COMMAND every quarter second until it succeeds; fails past the bound.
until_ready() {
  local deadline=$((SECONDS + $1))
  shift
  until "$@" >/dev/null 2>&1; do
    ((SECONDS < deadline)) || return 1
    sleep 0.25
  done
}

resident_kib() {
  local total=0 pid
  for pid in "$@"; do
    total=$((total + $(awk '/^VmRSS/ {print $2}' "/proc/$pid/status" 2>/dev/null || echo 0)))
  done
  echo "$total"
}

report() { # report NAME START_NANOSECONDS PIDS...
  local name=$1 start=$2
  shift 2
  local elapsed_ms=$((($(date +%s%N) - start) / 1000000))
  printf 'engines: %s up in %d.%03d s, %d MiB resident\n' "$name" $((elapsed_ms / 1000)) $((elapsed_ms % 1000)) \
    $(($(resident_kib "$@") / 1024))
}

as_postgres() {
  if [ "$(id -u)" -eq 0 ]; then
    runuser -u postgres -- "$@"
  else
    "$@"
  fi
}

postgres_data() { cat "$dir/postgres.data"; }

# The server on a cluster that start_postgres made, on the port it chose.
run_postgres() {
  local data port
  data=$(postgres_data)
  port=$(cat "$data/port")
  as_postgres "$pg_bin/pg_ctl" start -w -t "$wait_seconds" -D "$data/cluster" -l "$data/server.log" \
    -o "-c listen_addresses=127.0.0.1 -c port=$port -c unix_socket_directories='$data' -c shared_buffers=32MB" \
    >/dev/null || fail "PostgreSQL did not start: see $data/server.log"
}

halt_postgres() {
  [ -f "$dir/postgres.data" ] || return 0
  local data
  data=$(postgres_data)
  [ -f "$data/cluster/postmaster.pid" ] || return 0
  as_postgres "$pg_bin/pg_ctl" stop -m immediate -t "$wait_seconds" -D "$data/cluster" >/dev/null 2>&1 || true
}

start_postgres() {
  [ -x "$pg_bin/initdb" ] || fail "PostgreSQL is not installed: apt-get install postgresql-15"
  local started data port
  started=$(date +%s%N)
  port=$(free_port)
  data=$(mktemp -d /tmp/kiv-postgres.XXXXXX)
  echo "$data" >"$dir/postgres.data"
  echo "$port" >"$data/port"
  [ "$(id -u)" -ne 0 ] || chown -R postgres: "$data"
  as_postgres "$pg_bin/initdb" --no-sync --auth=trust --username=kiv --encoding=UTF8 --locale=C.UTF-8 \
    -D "$data/cluster" >"$dir/postgres-initdb.log" 2>&1 || fail "initdb failed: see $dir/postgres-initdb.log"
  run_postgres
  "$pg_bin/createdb" -h 127.0.0.1 -p "$port" -U kiv kiv || fail "createdb failed"
  echo "KIV_POSTGRES=postgresql://kiv@127.0.0.1:$port/kiv" >>"$dir/engines.env"
  local postmaster
  postmaster=$(head -1 "$data/cluster/postmaster.pid")
  report postgres "$started" "$postmaster" $(pgrep -P "$postmaster")
}

stop_postgres() {
  halt_postgres
  [ -f "$dir/postgres.data" ] || return 0
  rm -rf "$(postgres_data)" "$dir/postgres.data" "$dir/postgres-initdb.log"
}

# The gateway's cluster: cephx with one keyring that holds every daemon's key (the monitor imports it when it
# makes its store), one pool replica, few placement groups (one OSD), the OSD's objects in memory.
write_ceph_conf() {
  local mon_port=$1 rgw_port=$2 fsid=$3
  cat >"$dir/ceph/ceph.conf" <<EOF
[global]
fsid = $fsid
mon host = v2:127.0.0.1:$mon_port
ms bind msgr1 = false
ms bind ipv4 = true
public addr = 127.0.0.1
cluster addr = 127.0.0.1
keyring = $dir/ceph/keyring
run dir = $dir/ceph/run
admin socket = $dir/ceph/run/\$name.asok
pid file = $dir/ceph/run/\$name.pid
log file = $dir/ceph/log/\$name.log
osd pool default size = 1
osd pool default min size = 1
osd pool default pg num = 8
osd pool default pgp num = 8
osd pool default pg autoscale mode = off
osd crush chooseleaf type = 0
mon allow pool size one = true
mon warn on pool no redundancy = false
mon data avail warn = 1
mon max pg per osd = 1000
auth allow insecure global id reclaim = false
[mon.a]
mon data = $dir/ceph/mon
[osd.0]
osd data = $dir/ceph/osd
osd objectstore = memstore
memstore device bytes = ${KIV_GATEWAY_MEMORY_BYTES:-3221225472}
[client.rgw]
rgw frontends = beast endpoint=127.0.0.1:$rgw_port
rgw data = $dir/ceph/rgw
rgw dns name = 127.0.0.1
EOF
}

write_ceph_keyring() {
  local keyring=$dir/ceph/keyring
  ceph-authtool --create-keyring "$keyring" --gen-key -n mon. --cap mon 'allow *' >/dev/null
  ceph-authtool "$keyring" --gen-key -n client.admin --cap mon 'allow *' --cap osd 'allow *' \
    --cap mgr 'allow *' >/dev/null
  ceph-authtool "$keyring" --gen-key -n osd.0 --cap mon 'allow profile osd' --cap osd 'allow *' >/dev/null
  ceph-authtool "$keyring" --gen-key -n client.rgw --cap mon 'allow rw' --cap osd 'allow rwx' >/dev/null
}

ceph_cli() { timeout "$wait_seconds" ceph -c "$dir/ceph/ceph.conf" "$@"; }

daemon_pid() { cat "$dir/ceph/run/$1.pid" 2>/dev/null; }

start_radosgw() {
  local port
  port=$(sed -n 's/.*endpoint=127.0.0.1:\([0-9]*\).*/\1/p' "$dir/ceph/ceph.conf")
  radosgw -c "$dir/ceph/ceph.conf" -n client.rgw || fail "radosgw did not start: see $dir/ceph/log"
  until_ready "$wait_seconds" curl -sf -o /dev/null "http://127.0.0.1:$port/" ||
    fail "the gateway does not answer on 127.0.0.1:$port: see $dir/ceph/log/client.rgw.log"
}

start_gateway() {
  command -v radosgw >/dev/null || fail "Ceph's gateway is not installed: apt-get install ceph-mon ceph-osd radosgw"
  local started mon_port rgw_port fsid osd_uuid
  started=$(date +%s%N)
  mon_port=$(free_port)
  rgw_port=$(free_port)
  fsid=$(cat /proc/sys/kernel/random/uuid)
  osd_uuid=$(cat /proc/sys/kernel/random/uuid)
  mkdir -p "$dir/ceph/run" "$dir/ceph/log" "$dir/ceph/mon" "$dir/ceph/osd" "$dir/ceph/rgw"
  write_ceph_conf "$mon_port" "$rgw_port" "$fsid"
  write_ceph_keyring
  local conf=$dir/ceph/ceph.conf
  monmaptool --create --addv a "[v2:127.0.0.1:$mon_port]" --fsid "$fsid" "$dir/ceph/monmap" >/dev/null
  ceph-mon -c "$conf" -i a --mkfs --monmap "$dir/ceph/monmap" 2>/dev/null || fail "ceph-mon --mkfs failed"
  ceph-mon -c "$conf" -i a || fail "ceph-mon did not start: see $dir/ceph/log/mon.a.log"
  ceph_cli osd new "$osd_uuid" >/dev/null || fail "the monitor did not answer: see $dir/ceph/log/mon.a.log"
  ceph-osd -c "$conf" -i 0 --mkfs --osd-uuid "$osd_uuid" 2>/dev/null || fail "ceph-osd --mkfs failed"
  ceph-osd -c "$conf" -i 0 2>/dev/null || fail "ceph-osd did not start: see $dir/ceph/log/osd.0.log"
  until_ready "$wait_seconds" bash -c "ceph -c '$conf' osd dump | grep -q '^osd.0 up'" ||
    fail "osd.0 did not come up: see $dir/ceph/log/osd.0.log"
  start_radosgw
  local access secret
  access=KIV$(od -An -N8 -tx1 /dev/urandom | tr -d ' \n' | tr a-f A-F)
  secret=$(od -An -N20 -tx1 /dev/urandom | tr -d ' \n')
  timeout "$wait_seconds" radosgw-admin -c "$conf" -n client.admin user create --uid=kiv --display-name=kiv \
    --access-key="$access" --secret-key="$secret" >/dev/null || fail "radosgw-admin could not make the user"
  {
    echo "KIV_S3_ENDPOINT=http://127.0.0.1:$rgw_port"
    echo "KIV_S3_REGION=default"
    echo "KIV_S3_ACCESS_KEY=$access"
    echo "KIV_S3_SECRET_KEY=$secret"
  } >>"$dir/engines.env"
  report gateway "$started" "$(daemon_pid mon.a)" "$(daemon_pid osd.0)" "$(daemon_pid client.rgw)"
}

# Ends one daemon that start wrote down and waits for it to be gone.
stop_daemon() {
  local pid
  pid=$(daemon_pid "$1") || return 0
  kill "$pid" 2>/dev/null || return 0
  until_ready 30 bash -c "! kill -0 $pid" || kill -9 "$pid" 2>/dev/null || true
}

stop_gateway() {
  [ -d "$dir/ceph" ] || return 0
  # One after the other: a gateway whose OSD is gone waits for it a long time before it ends.
  stop_daemon client.rgw
  stop_daemon osd.0
  stop_daemon mon.a
  rm -rf "$dir/ceph"
}

start() {
  local engines=("$@")
  [ ${#engines[@]} -gt 0 ] || engines=(postgres gateway)
  stop
  mkdir -p "$dir"
  : >"$dir/engines.env"
  # The engines start side by side; each appends its own lines to engines.env when it is up.
  local engine pid starting=() failed=0
  for engine in "${engines[@]}"; do
    case $engine in
      postgres | gateway) "start_$engine" & starting+=($!) ;;
      *) fail "unknown engine $engine (postgres or gateway)" ;;
    esac
  done
  for pid in "${starting[@]}"; do wait "$pid" || failed=1; done
  if ((failed)); then
    stop
    exit 1
  fi
}

stop() {
  stop_gateway
  stop_postgres
  rm -f "$dir/engines.env"
}

[ $# -ge 2 ] || fail "usage: $0 start|stop|halt|resume DIR [ENGINE...]"
command=$1
dir=$(realpath -m "$2")
shift 2
case $command in
  start) start "$@" ;;
  stop) stop ;;
  halt)
    case ${1:-} in
      postgres) halt_postgres ;;
      radosgw) stop_daemon client.rgw ;;
      *) fail "halt takes postgres or radosgw" ;;
    esac
    ;;
  resume)
    case ${1:-} in
      postgres) run_postgres ;;
      radosgw) start_radosgw ;;
      *) fail "resume takes postgres or radosgw" ;;
    esac
    ;;
  *) fail "unknown command $command" ;;
esac
