# Shared by the kiv-service benchmark scripts: starts the built service on a free loopback port with a fresh data
# folder and stops it (by its own process id) when the script exits. Builds nothing.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
service_program=${KIV_SERVICE:-$root/build/service/tools/kiv-service/kiv-service}
token=bench-token
work=$(mktemp -d "${TMPDIR:-/tmp}/kiv-service-bench.XXXXXX")
service_pid=""

cleanup() {
  if [ -n "$service_pid" ]; then kill "$service_pid" 2>/dev/null || true; wait "$service_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

require() {
  for tool in "$@"; do
    command -v "$tool" >/dev/null || { echo "missing $tool: run scripts/setup.sh bench/debian-packages.txt" >&2; exit 1; }
  done
}

# start_service: sets base_url and ca_file.
start_service() {
  [ -x "$service_program" ] || { echo "build kiv-service first (expected $service_program)" >&2; exit 1; }
  "$service_program" --data "$work/data" --port 0 --token "$token" >"$work/stdout" 2>"$work/service.log" &
  service_pid=$!
  for _ in $(seq 100); do
    grep -q 'listening on' "$work/stdout" 2>/dev/null && break
    sleep 0.1
  done
  base_url=$(grep -o 'https://127.0.0.1:[0-9]*' "$work/stdout")
  ca_file="$work/data/ca.pem"
}

api() {  # api METHOD PATH [BODY]
  curl -sS --fail-with-body --cacert "$ca_file" -X "$1" -H "Authorization: app-token $token" \
    -H 'Content-Type: application/json' ${3:+--data-binary "$3"} "$base_url$2"
}

json_field() {  # json_field EXPRESSION < JSON, e.g. json_field '["slug"]'
  python3 -c "import json, sys; print(json.load(sys.stdin)$1)"
}

# create_report NAME FILE_NAME DIGEST: prints the report's JSON.
create_report() {
  api POST /v1/reports/ "{\"name\": \"$1\", \"original_created_at\": \"2024-05-01T12:00:00Z\",
    \"provable_files\": [{\"file_name\": \"$2\", \"original_created_at\": \"2024-05-01T12:00:00Z\", \"hash\": \"$3\"}]}"
}
