# Shared by the kiv-service benchmark scripts: starts the built service on a free loopback port with a fresh data
# folder and stops it (by its own process id) when the script exits. Builds nothing.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
service_program=${KIV_SERVICE:-$root/build/bench/tools/kiv-service/kiv-service}
token=bench-token
work=$(mktemp -d "${TMPDIR:-/tmp}/kiv-service-bench.XXXXXX")
service_pid=""
nginx_pid=""

cleanup() {
  for pid in $service_pid $nginx_pid; do kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; done
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

# start_nginx LOCATION_BODY: nginx over HTTPS on a free loopback port with the service's certificate, serving
# "location / { LOCATION_BODY }"; sets nginx_port. Call after start_service.
start_nginx() {
  nginx_port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
  mkdir -p "$work/dav" "$work/nginx-body"
  cat >"$work/nginx.conf" <<CONF
user root;
worker_processes 2;
daemon off;
pid $work/nginx.pid;
error_log $work/nginx-error.log;
events { worker_connections 4096; }
http {
  access_log off;
  client_body_temp_path $work/nginx-body;
  server {
    listen 127.0.0.1:$nginx_port ssl;
    ssl_certificate $work/data/tls/server.pem;
    ssl_certificate_key $work/data/tls/server-key.pem;
    location / { $1 }
  }
}
CONF
  nginx -c "$work/nginx.conf" -p "$work" &
  nginx_pid=$!
  for _ in $(seq 50); do curl -s -o /dev/null --cacert "$ca_file" "https://127.0.0.1:$nginx_port/" && break; sleep 0.1; done
}

# time_curl_uploads FOLDER COUNT: a report of every file in FOLDER (hashed here), then every upload address put
# in one `curl --parallel --parallel-max COUNT` run; sets curl_seconds (wall time of the uploads) and
# curl_status (the report's status afterwards). Call after start_service.
time_curl_uploads() {
  local folder=$1 parallel=$2 report slug target name file_slug
  report=$(api POST /v1/reports/ "$(python3 - "$folder" <<'PY'
import hashlib, json, os, sys
folder = sys.argv[1]
files = []
for name in sorted(os.listdir(folder)):
    digest = hashlib.sha256()
    with open(os.path.join(folder, name), "rb") as content:
        for block in iter(lambda: content.read(1 << 20), b""):
            digest.update(block)
    files.append({"file_name": name, "original_created_at": "2024-05-01T12:00:00Z", "hash": digest.hexdigest()})
print(json.dumps({"name": "curl", "original_created_at": "2024-05-01T12:00:00Z", "provable_files": files}))
PY
)")
  slug=$(echo "$report" | json_field '["slug"]')
  local transfers=()
  while read -r name file_slug; do
    target=$(api GET "/v1/reports/$slug/file-upload/?type=jpg&file_slug=$file_slug" | json_field '["upload_uri"]')
    transfers+=(-T "$folder/$name" -o /dev/null "$target")
  done < <(echo "$report" | python3 -c 'import json, sys
for f in json.load(sys.stdin)["provable_files"]: print(f["file_name"], f["slug"])')
  TIMEFORMAT=%R
  curl_seconds=$({ time curl -sS --no-progress-meter --fail --parallel --parallel-max "$parallel" \
    --cacert "$ca_file" -H 'Expect:' "${transfers[@]}" 2>"$work/curl.err"; } 2>&1) || { cat "$work/curl.err" >&2; exit 1; }
  curl_status=$(api GET "/v1/reports/$slug/" | json_field '["status"]')
}
