#!/usr/bin/env bash
# HTTP client benchmark. Builds network_bench (bench preset), starts its loopback HTTPS server in a process of
# its own, then in one run against that server:
#  1. a 1 GiB upload and a 1 GiB download: the SDK vs the `curl` tool (best of 3 each, taking turns), and the
#     SDK's peak resident memory (the server's is not counted);
#  2. 1,000 small JSON requests one after another (one kept-alive connection);
#  3. 200 background uploads started at once on one session.
# Usage: bench/ZuNetworking/run.sh [work folder]   (needs about 2 GiB of free space there; default: a temp folder)
# NETWORK_BENCH=<path to a network_bench already built> skips the bench preset build.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
work=${1:-$(mktemp -d)}

bench=${NETWORK_BENCH:-}
if [ -z "$bench" ]; then
  cmake --preset bench >/dev/null
  cmake --build --preset bench --target network_bench >/dev/null
  bench="$root/build/bench/bench/ZuNetworking/network_bench"
fi

coproc SERVER { "$bench" serve; }
trap 'exec {SERVER[1]}>&-; wait; rm -rf "$work/big.bin" "$work/small.bin" "$work/down.bin" "$work/appdata"' EXIT
read -r port_line <&"${SERVER[0]}"
read -r ca_line <&"${SERVER[0]}"
port=${port_line#port=}
ca=${ca_line#ca=}
base="https://127.0.0.1:$port"

size=$((1 << 30))
head -c $size /dev/urandom >"$work/big.bin"
head -c 4096 /dev/urandom >"$work/small.bin"

best() { grep . | sort -g | head -n 1; }
value() { grep "^$1=" | cut -d= -f2; }

TIMEFORMAT=%R
# curl and the SDK take turns, so that a change in the machine's load between runs falls on both alike.
curl_up="" curl_down="" up_runs="" down_runs=""
for _ in 1 2 3; do
  curl_up+=$({ time curl -sS --cacert "$ca" -H 'Expect:' -T "$work/big.bin" -o /dev/null "$base/upload"; } 2>&1)$'\n'
  up_runs+=$("$bench" upload "$base" "$ca" "$work/big.bin")$'\n'
  curl_down+=$({ time curl -sS --cacert "$ca" -o "$work/down.bin" "$base/bytes?size=$size"; } 2>&1)$'\n'
  down_runs+=$("$bench" download "$base" "$ca" "$size")$'\n'
done
curl_up=$(echo "$curl_up" | best)
curl_down=$(echo "$curl_down" | best)
json_run=$("$bench" json "$base" "$ca" 1000)
background_run=$("$bench" background "$base" "$ca" "$work/small.bin" 200)

python3 - "$curl_up" "$(echo "$up_runs" | value seconds | best)" "$(echo "$up_runs" | value peak_kib | sort -n | tail -n 1)" \
  "$curl_down" "$(echo "$down_runs" | value seconds | best)" "$(echo "$down_runs" | value peak_kib | sort -n | tail -n 1)" \
  "$(echo "$json_run" | value seconds)" "$(echo "$json_run" | value completions)" "$(echo "$json_run" | value threads)" \
  "$(echo "$background_run" | value seconds)" "$(echo "$background_run" | value completions)" \
  "$(echo "$background_run" | value threads)" <<'PY'
import sys
(curl_up, sdk_up, up_peak, curl_down, sdk_down, down_peak, json_s, json_n, json_threads, bg_s, bg_n,
 bg_threads) = map(float, sys.argv[1:])
print(f"1 GiB upload:   SDK {1 / sdk_up:.2f} GiB/s, curl {1 / curl_up:.2f} GiB/s, ratio {curl_up / sdk_up:.2f}, "
      f"SDK peak {up_peak / 1024:.1f} MiB")
print(f"1 GiB download: SDK {1 / sdk_down:.2f} GiB/s, curl {1 / curl_down:.2f} GiB/s, ratio {curl_down / sdk_down:.2f}, "
      f"SDK peak {down_peak / 1024:.1f} MiB")
print(f"1,000 JSON requests in sequence: {json_n / json_s:.0f} requests/s, {json_n:.0f}/1000 completions, "
      f"{json_threads:.0f} threads")
print(f"200 background uploads at once: {bg_n / bg_s:.0f} uploads/s, {bg_n:.0f}/200 completions, "
      f"{bg_threads:.0f} threads")
PY
