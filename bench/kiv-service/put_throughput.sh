#!/usr/bin/env bash
# PUT throughput of one large file (default 1 GiB) to a kiv-service upload URL, compared in the same run with
# nginx as a plain WebDAV PUT target over HTTPS with the same certificate. curl uploads in both cases, trusting
# the service's CA. kiv-service also hashes the stream and fdatasyncs the file before answering; nginx does neither.
# Usage: bench/kiv-service/put_throughput.sh [MiB] [rounds]
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
require curl nginx python3 sha256sum
mebibytes=${1:-1024}
rounds=${2:-3}
start_service

payload="$work/payload.bin"
head -c "$((mebibytes * 1024 * 1024))" /dev/urandom >"$payload"
digest=$(sha256sum "$payload" | cut -d' ' -f1)
report=$(create_report "Throughput" "VID_0001.mp4" "$digest")
slug=$(json_field '["slug"]' <<<"$report")
file_slug=$(json_field '["provable_files"][0]["slug"]' <<<"$report")

start_nginx "root $work/dav; dav_methods PUT; client_max_body_size 0;"

put() {  # put URL: prints MiB/s
  curl -sS --fail -o /dev/null --cacert "$ca_file" -T "$payload" -w '%{speed_upload}\n' "$1" |
    awk '{ printf "%.0f\n", $1 / 1048576 }'
}

echo "PUT of $mebibytes MiB over HTTPS on loopback, $rounds rounds each (MiB/s)"
for round in $(seq "$rounds"); do
  upload_uri=$(api GET "/v1/reports/$slug/file-upload/?type=mp4&file_slug=$file_slug" | json_field '["upload_uri"]')
  service_rate=$(put "$upload_uri")
  nginx_rate=$(put "https://127.0.0.1:$nginx_port/payload-$round.bin")
  rm -f "$work/dav/payload-$round.bin"
  echo "round $round: kiv-service $service_rate MiB/s, nginx WebDAV $nginx_rate MiB/s"
done
echo "report status after upload: $(api GET "/v1/reports/$slug/" | json_field '["status"]')"
