#!/usr/bin/env bash
# `kiv upload` of one report of COUNT files of MIB MiB against kiv-service on loopback, timed from the outside
# with /usr/bin/time (wall time, peak resident memory). In the same run, the `curl` tool uploads the same files
# to the same service (`curl --parallel`, a second report).
# Usage: bench/kiv/run.sh [COUNT [MIB]]   (default 20 files of 50 MiB; needs 2 x COUNT x MIB MiB of free space)
# KIV and KIV_SERVICE name programs already built; otherwise the bench preset builds them.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
count=${1:-20}
mib=${2:-50}

kiv=${KIV:-}
if [ -z "$kiv" ] || [ -z "${KIV_SERVICE:-}" ]; then
  cmake --preset bench >/dev/null
  cmake --build --preset bench --target kiv kiv-service >/dev/null
  kiv="$root/build/bench/tools/kiv/kiv"
  export KIV_SERVICE="$root/build/bench/tools/kiv-service/kiv-service"
fi
# shellcheck source=../kiv-service/common.sh
source "$root/bench/kiv-service/common.sh"
require curl python3 /usr/bin/time
start_service

media="$work/media"
mkdir -p "$media"
for i in $(seq -w 1 "$count"); do head -c $((mib << 20)) /dev/urandom >"$media/IMG_$i.jpg"; done
export KIV_DATA_DIR="$work/kiv-data" KIV_SERVICE_URL="$base_url" KIV_SERVICE_CA="$ca_file" KIV_APP_TOKEN="$token"
id=$("$kiv" report new bench)
"$kiv" add "$id" "$media"/* >/dev/null
"$kiv" send "$id" >/dev/null

/usr/bin/time -v -o "$work/kiv.time" "$kiv" upload "$id" >/dev/null
kiv_status=$("$kiv" status "$id" --force)
time_curl_uploads "$media" "$count"

python3 - "$count" "$mib" "$curl_seconds" "$curl_status" "$work/kiv.time" "$kiv_status" <<'PY'
import re, sys
count, mib, curl_s, curl_status, time_file, kiv_status = sys.argv[1:]
count, mib, curl_s = int(count), int(mib), float(curl_s)
figures = open(time_file).read()
clock = re.search(r"Elapsed \(wall clock\) time.*: (?:(\d+):)?(\d+):([\d.]+)", figures)
kiv_s = int(clock.group(1) or 0) * 3600 + int(clock.group(2)) * 60 + float(clock.group(3))
peak_kib = int(re.search(r"Maximum resident set size \(kbytes\): (\d+)", figures).group(1))
gib = count * mib / 1024
print(f"{count} files of {mib} MiB ({gib:.2f} GiB) on loopback:")
print(f"  kiv upload: {kiv_s:.2f} s ({gib / kiv_s:.2f} GiB/s), {kiv_status}")
print(f"  curl --parallel, the same uploads: {curl_s:.2f} s ({gib / curl_s:.2f} GiB/s), report {curl_status}")
print(f"  ratio, kiv / curl: {kiv_s / curl_s:.2f}")
print(f"  kiv peak resident memory: {peak_kib / 1024:.1f} MiB")
PY
