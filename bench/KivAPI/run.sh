#!/usr/bin/env bash
# The evidence flow through KivAPI against kiv-service on loopback, for one report of COUNT files of MIB MiB:
# `send`, the COUNT uploads started together, `forceStatusUpdate` until "confirmed", `generatePDF`. In the same
# run, the `curl` tool uploads the same files to the same service (`curl --parallel`, a second report), and the
# SDK runs again with files a tenth of the size, to show that its memory does not grow with file size.
# Usage: bench/KivAPI/run.sh [COUNT [MIB]]   (default 20 files of 50 MiB; needs COUNT x MIB MiB of free space)
# KIVAPI_BENCH and KIV_SERVICE name programs already built; otherwise the bench preset builds them.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
count=${1:-20}
mib=${2:-50}

bench=${KIVAPI_BENCH:-}
if [ -z "$bench" ] || [ -z "${KIV_SERVICE:-}" ]; then
  cmake --preset bench >/dev/null
  cmake --build --preset bench --target kivapi_bench kiv-service >/dev/null
  bench="$root/build/bench/bench/KivAPI/kivapi_bench"
  export KIV_SERVICE="$root/build/bench/tools/kiv-service/kiv-service"
fi
# shellcheck source=../kiv-service/common.sh
source "$root/bench/kiv-service/common.sh"
require curl python3
start_service

# make_media SIZE_MIB: COUNT files of random bytes in a fresh application data folder's media folder.
make_media() {
  appdata="$work/appdata-$1"
  mkdir -p "$appdata/Documents/Kiv"
  for i in $(seq -w 1 "$count"); do head -c $(($1 << 20)) /dev/urandom >"$appdata/Documents/Kiv/IMG_$i.jpg"; done
}
value() { grep "^$1=" | cut -d= -f2; }

make_media "$mib"
sdk=$("$bench" "$base_url" "$ca_file" "$token" "$appdata")

# curl: a second report with the same files, uploaded with `curl --parallel`.
media="$appdata/Documents/Kiv"
time_curl_uploads "$media" "$count"
rm -rf "$appdata"

make_media $((mib / 10 > 0 ? mib / 10 : 1))
small=$("$bench" "$base_url" "$ca_file" "$token" "$appdata")

python3 - "$count" "$mib" "$curl_seconds" "$curl_status" "$(echo "$sdk" | value seconds)" \
  "$(echo "$sdk" | value upload_seconds)" "$(echo "$sdk" | value status)" "$(echo "$sdk" | value threads)" \
  "$(echo "$sdk" | value peak_kib)" "$(echo "$small" | value peak_kib)" "$((mib / 10 > 0 ? mib / 10 : 1))" <<'PY'
import sys
count, mib, curl_s, curl_status, flow_s, upload_s, status, threads, peak, small_peak, small_mib = sys.argv[1:]
count, mib, curl_s, flow_s, upload_s = int(count), int(mib), float(curl_s), float(flow_s), float(upload_s)
gib = count * mib / 1024
print(f"{count} files of {mib} MiB ({gib:.2f} GiB) on loopback:")
print(f"  SDK whole flow (send, uploads, status, PDF): {flow_s:.2f} s, report {status}")
print(f"  SDK uploads alone: {upload_s:.2f} s ({gib / upload_s:.2f} GiB/s)")
print(f"  curl --parallel, the same uploads: {curl_s:.2f} s ({gib / curl_s:.2f} GiB/s), report {curl_status}")
print(f"  ratio, SDK whole flow / curl uploads: {flow_s / curl_s:.2f}; SDK uploads / curl uploads: {upload_s / curl_s:.2f}")
print(f"  SDK peak resident memory: {int(peak) / 1024:.1f} MiB ({int(small_peak) / 1024:.1f} MiB with {small_mib} MiB files); "
      f"threads: {threads}")
PY
