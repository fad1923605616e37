#!/usr/bin/env bash
# Content digest benchmark. Builds digest_bench (bench preset), then in one run:
#  1. a 1 GiB file: KivFile::withCalculatedHash vs `openssl dgst -sha256` on the same file (best of 3 each,
#     page cache warm for both), and the SDK's peak resident memory;
#  2. a report of 8 files of 128 MiB: digests in parallel vs one file after another.
# Usage: bench/ZuDigest/run.sh [work folder]   (needs about 2 GiB of free space there; default: a temp folder)
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
work=${1:-$(mktemp -d)}
trap 'rm -rf "$work/Documents"' EXIT

cmake --preset bench >/dev/null
cmake --build --preset bench --target digest_bench >/dev/null
bench="$root/build/bench/bench/ZuDigest/digest_bench"

media="$work/Documents/Kiv"
mkdir -p "$media"
head -c $((1 << 30)) /dev/urandom >"$media/big.bin"
for i in $(seq 0 7); do head -c $((128 << 20)) /dev/urandom >"$media/f$i.bin"; done

best() { sort -g | head -n 1; }
value() { grep "^$1=" | cut -d= -f2; }

TIMEFORMAT=%R
openssl_seconds=$(for _ in 1 2 3; do { time openssl dgst -sha256 "$media/big.bin" >/dev/null; } 2>&1; done | best)
sdk_runs=$(for _ in 1 2 3; do "$bench" file "$work" big.bin; done)
sdk_seconds=$(echo "$sdk_runs" | value seconds | best)
sdk_peak=$(echo "$sdk_runs" | value peak_kib | sort -n | tail -n 1)
[ "$(echo "$sdk_runs" | value hash | head -n 1)" = "$(openssl dgst -sha256 -r "$media/big.bin" | cut -d' ' -f1)" ]

report=$("$bench" report "$work" 8)
python3 - "$openssl_seconds" "$sdk_seconds" "$sdk_peak" "$(echo "$report" | value parallel_seconds)" \
  "$(echo "$report" | value sequential_seconds)" <<'PY'
import sys
openssl, sdk, peak, parallel, sequential = map(float, sys.argv[1:])
gib = 1.0
print(f"1 GiB file: SDK {gib / sdk:.2f} GiB/s, openssl dgst {gib / openssl:.2f} GiB/s, ratio {openssl / sdk:.2f}")
print(f"1 GiB file: SDK peak resident memory {peak / 1024:.1f} MiB")
print(f"8 x 128 MiB report: parallel {parallel:.2f} s, sequential {sequential:.2f} s, speed-up {sequential / parallel:.2f}x")
PY
