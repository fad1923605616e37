#!/usr/bin/env bash
# Two kiv-service nodes on PostgreSQL and the Ceph object gateway behind haproxy, against one node on SQLite and
# its data folder, in the same run: GET /v1/reports/<slug>/ of a confirmed report per second (wrk, 50 keep-alive
# connections, through the balancer for the pair) and one large PUT (default 1 GiB) to the upload address each hands out (the
# node itself, or the object store), with the time until the report reads "confirmed" (the node hashes what it
# received, or reads the object back and hashes it). Ends with each node's peak resident memory.
# Usage: bench/kiv-service/cluster.sh [seconds] [MiB]   (KIV_SERVICE=path overrides the program)
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
require wrk curl python3 sha256sum haproxy
duration=${1:-10}
mebibytes=${2:-1024}
engines="$work/engines"
cluster_pids=()
haproxy_pid=""

stop_cluster() {
  for pid in "${cluster_pids[@]}" $haproxy_pid; do kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; done
  "$root/scripts/engines.sh" stop "$engines" || true
}
trap 'stop_cluster; cleanup' EXIT

free_port() { python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }

# start_node NAME PORT: a node on the shared engines; appends its process id to cluster_pids.
start_node() {
  "$service_program" --data "$work/$1" --tls "$work/tls" --port "$2" --token "$token" --database "$KIV_POSTGRES" \
    --s3-endpoint "$KIV_S3_ENDPOINT" --s3-region "$KIV_S3_REGION" --s3-bucket kiv-bench \
    >"$work/$1.stdout" 2>"$work/$1.log" &
  cluster_pids+=($!)
  for _ in $(seq 150); do grep -q 'listening on' "$work/$1.stdout" 2>/dev/null && return; sleep 0.2; done
  echo "node $1 did not start: $(cat "$work/$1.log")" >&2
  exit 1
}

start_cluster() {
  KIV_GATEWAY_MEMORY_BYTES=$(((mebibytes + 1024) * 1048576)) "$root/scripts/engines.sh" start "$engines"
  set -a
  source "$engines/engines.env"
  set +a
  local port_a port_b
  port_a=$(free_port)
  port_b=$(free_port)
  balancer_port=$(free_port)
  start_node a "$port_a"
  start_node b "$port_b"
  cat >"$work/haproxy.cfg" <<CFG
global
  maxconn 4096
defaults
  mode tcp
  timeout connect 5s
  timeout client 120s
  timeout server 120s
frontend kiv
  bind 127.0.0.1:$balancer_port
  default_backend nodes
backend nodes
  balance roundrobin
  option httpchk GET /ready
  default-server check check-ssl verify required ca-file $work/tls/ca.pem inter 2s
  server a 127.0.0.1:$port_a
  server b 127.0.0.1:$port_b
CFG
  haproxy -db -f "$work/haproxy.cfg" >"$work/haproxy.log" 2>&1 &
  haproxy_pid=$!
  for _ in $(seq 100); do curl -sf -o /dev/null --cacert "$work/tls/ca.pem" "https://127.0.0.1:$balancer_port/ready" && return; sleep 0.2; done
  echo "haproxy does not answer" >&2
  exit 1
}

# measure LABEL BASE_URL CA_FILE: GET rate, then the large PUT and its confirmation, against one deployment.
measure() {
  base_url=$2
  ca_file=$3
  local slug file_slug upload_uri started put_seconds confirm_seconds status rate
  local report
  report=$(create_report "Benchmark" "IMG_0001.jpg" "$(printf x | sha256sum | cut -d' ' -f1)")
  slug=$(json_field '["slug"]' <<<"$report")
  file_slug=$(json_field '["provable_files"][0]["slug"]' <<<"$report")
  # A confirmed report: what a GET costs in the records alone (a file not yet proven is looked for in the
  # object store on every GET as well).
  upload_uri=$(api GET "/v1/reports/$slug/file-upload/?type=jpg&file_slug=$file_slug" | json_field '["upload_uri"]')
  printf x >"$work/x"
  curl -sS --fail -o /dev/null --cacert "$ca_file" -T "$work/x" "$upload_uri"
  status=$(api GET "/v1/reports/$slug/" | json_field '["status"]') # also verifies TLS; wrk does not check
  [ "$status" = confirmed ] || { echo "$1: the GET report is $status" >&2; exit 1; }
  rate=$(wrk -t2 -c50 -d"${duration}s" -H "Authorization: app-token $token" "$base_url/v1/reports/$slug/" |
    awk '/Requests\/sec/ {print $2}')
  echo "$1: GET $rate requests/s"

  report=$(create_report "Throughput" "VID_0001.mp4" "$digest")
  slug=$(json_field '["slug"]' <<<"$report")
  file_slug=$(json_field '["provable_files"][0]["slug"]' <<<"$report")
  upload_uri=$(api GET "/v1/reports/$slug/file-upload/?type=mp4&file_slug=$file_slug" | json_field '["upload_uri"]')
  started=$(date +%s%N)
  curl -sS --fail -o /dev/null --cacert "$ca_file" -T "$payload" -H 'Expect:' "$upload_uri"
  put_seconds=$((($(date +%s%N) - started) / 1000000))
  status=$(api GET "/v1/reports/$slug/" | json_field '["status"]')
  confirm_seconds=$((($(date +%s%N) - started) / 1000000 - put_seconds))
  printf '%s: PUT of %d MiB in %d ms (%d MiB/s), then "%s" after %d ms more\n' "$1" "$mebibytes" "$put_seconds" \
    $((mebibytes * 1000 / (put_seconds > 0 ? put_seconds : 1))) "$status" "$confirm_seconds"
}

peak_mib() { awk '/^VmHWM/ {printf "%d", $2 / 1024}' "/proc/$1/status"; }

payload="$work/payload.bin"
head -c "$((mebibytes * 1024 * 1024))" /dev/urandom >"$payload"
digest=$(sha256sum "$payload" | cut -d' ' -f1)

start_service
single_url=$base_url
single_ca=$ca_file
start_cluster
measure "one node, SQLite + folder" "$single_url" "$single_ca"
measure "two nodes, PostgreSQL + S3, via haproxy" "https://127.0.0.1:$balancer_port" "$work/tls/ca.pem"
echo "peak memory: single node $(peak_mib "$service_pid") MiB; node a $(peak_mib "${cluster_pids[0]}") MiB, node b $(peak_mib "${cluster_pids[1]}") MiB"
