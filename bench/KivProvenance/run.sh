#!/usr/bin/env bash
# Provenance costs, each beside a reference measured in the same run:
#  1. signing a statement: the SDK's JWS alone, and kept durably in the report's statements file as an import
#     keeps it, against the Ed25519 signatures alone of `openssl speed ed25519`;
#  2. checking the certificate of COUNT files offline: the document alone against poppler's `pdfsig` on it,
#     and with its files against `sha256sum` of the same files (the digests no check can do without);
#  3. the evidence flow through KivAPI (bench/KivAPI) for COUNT files of MIB MiB with provenance against the
#     same flow without it, taking turns for ROUNDS rounds so that the machine's load falls on both alike; the
#     overhead compares the medians.
# Usage: bench/KivProvenance/run.sh [COUNT [MIB [ROUNDS]]]   (default 20 x 50 MiB, 3 rounds; needs about
# (2 x ROUNDS + 1) x COUNT x MIB MiB of free space)
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
count=${1:-20}
mib=${2:-50}
rounds=${3:-3}

cmake --preset bench >/dev/null
cmake --build --preset bench --target kivapi_bench provenance_bench kiv-service >/dev/null
flow="$root/build/bench/bench/KivAPI/kivapi_bench"
bench="$root/build/bench/bench/KivProvenance/provenance_bench"
export KIV_SERVICE="$root/build/bench/tools/kiv-service/kiv-service"
# shellcheck source=../kiv-service/common.sh
source "$root/bench/kiv-service/common.sh"
require openssl pdfsig sha256sum python3
start_service

value() { grep "^$1=" | cut -d= -f2; }
median() { sort -g | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
best() { sort -g | head -n 1; }
TIMEFORMAT=%R

# 1. Signing.
signed=$("$bench" sign "$work/signer" 2000 100)
openssl_signs=$(openssl speed -seconds 1 ed25519 2>/dev/null | awk '/Ed25519/ { print $(NF - 1) }')

# 3. The flow, with and without provenance in turn, in one application data folder.
appdata="$work/appdata"
mkdir -p "$appdata/Documents/Kiv"
for i in $(seq -w 1 "$count"); do head -c $((mib << 20)) /dev/urandom >"$appdata/Documents/Kiv/IMG_$i.jpg"; done
plain=()
provenance=()
for _ in $(seq "$rounds"); do
  plain+=("$("$flow" "$base_url" "$ca_file" "$token" "$appdata" | value seconds)")
  with=$("$flow" "$base_url" "$ca_file" "$token" "$appdata" provenance)
  provenance+=("$(echo "$with" | value seconds)")
  pdf=$(echo "$with" | value pdf)
done

# 2. Checking the last certificate offline, with the media it certifies.
media="$appdata/Documents/Kiv"
document=$("$bench" verify "$ca_file" "$pdf" 20)
pdfsig_seconds=$(for _ in 1 2 3; do { time pdfsig "$pdf" >/dev/null; } 2>&1; done | best)
[ "$(echo "$document" | value passed)" = 1 ]
with_files=$(for _ in 1 2 3; do "$bench" verify "$ca_file" "$pdf" 1 "$media" | value seconds; done | best)
sha256sum_seconds=$(for _ in 1 2 3; do { time sha256sum "$media"/* >/dev/null; } 2>&1; done | best)

python3 - "$count" "$mib" "$(echo "$signed" | value jws_seconds)" "$(echo "$signed" | value kept_seconds)" \
  "$openssl_signs" "$(echo "$document" | value seconds)" "$pdfsig_seconds" "$with_files" "$sha256sum_seconds" \
  "$(printf '%s\n' "${plain[@]}" | median)" "$(printf '%s\n' "${provenance[@]}" | median)" \
  "${plain[*]}" "${provenance[*]}" <<'PY'
import sys
count, mib = int(sys.argv[1]), int(sys.argv[2])
jws, kept, openssl_signs, document, pdfsig, with_files, sha256sum, plain, provenance = map(float, sys.argv[3:12])
plain_runs, provenance_runs = sys.argv[12], sys.argv[13]
openssl = 1 / openssl_signs
print("Signing a statement:")
print(f"  SDK JWS {jws * 1e6:.1f} us; kept in the statements file {kept * 1e6:.1f} us; "
      f"openssl speed ed25519 signature alone {openssl * 1e6:.1f} us; ratio JWS / openssl {jws / openssl:.2f}")
print(f"Checking the certificate of {count} files of {mib} MiB offline:")
print(f"  document alone: SDK {document * 1e3:.1f} ms, pdfsig {pdfsig * 1e3:.1f} ms, ratio {document / pdfsig:.2f}")
print(f"  with its files: SDK {with_files:.2f} s, sha256sum of the files {sha256sum:.2f} s, ratio {with_files / sha256sum:.2f}")
print(f"The flow (send, statements, uploads, confirmed, manifest and time-stamp, certificate), {count} x {mib} MiB:")
print(f"  without provenance: median {plain:.2f} s ({plain_runs})")
print(f"  with provenance:    median {provenance:.2f} s ({provenance_runs})")
print(f"  overhead: {(provenance / plain - 1) * 100:+.1f} %")
PY
