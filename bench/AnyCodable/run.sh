#!/usr/bin/env bash
# JSON reader benchmark. Builds json_bench (bench preset) and parses two answers, each in its own process so
# that each peak memory figure is its own: (a) a typical report answer (a report of 2,000 files with
# metadata, about 1 MB) and (b) a hostile one, 500 nested arrays around 40,000 numbers (81 KB). Python's json
# module parses the same files in the same run as the reference (time: best of three parses, with the page
# faults taken during that parse; memory: the process's peak resident size).
# Usage: bench/AnyCodable/run.sh [json_bench program]   (another build's program, to compare two versions)
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

bench=${1:-}
if [ -z "$bench" ]; then
  cmake --preset bench >/dev/null
  cmake --build --preset bench --target json_bench >/dev/null
  bench="$root/build/bench/bench/AnyCodable/json_bench"
fi

python3 - "$work" <<'PY'
import json, sys
work = sys.argv[1]
file = lambda i: {"slug": f"f{i}", "file_name": f"IMG_{i}.jpg", "original_created_at": "2024-05-01T11:59:00Z",
                  "hash": "ab" * 32, "description": None, "file": f"https://127.0.0.1:8443/storage/r/f{i}.jpg",
                  "meta_data": {"camera": {"model": "Rear wide", "iso": 100 + i}, "lat": 50.45 + i * 1e-6}}
report = {"status": "pending", "slug": "r1", "name": "Water damage", "original_created_at": "2024-05-01T11:59:00Z",
          "note": "kitchen", "meta_data": {"room": "kitchen"}, "hash": None,
          "provable_files": [file(i) for i in range(2000)]}
open(f"{work}/typical.json", "w").write(json.dumps(report))
open(f"{work}/hostile.json", "w").write("[" * 500 + ",".join(["0"] * 40000) + "]" * 500)
PY

# Both readers run with glibc keeping freed memory in its heap (no trimming, no separate mappings for large
# arrays), as in an application that reads answers all day: otherwise each parse after the first pays again for
# the pages the previous tree gave back to the kernel when it was freed, and on a busy machine those page
# faults cost ten times the parse itself.
export MALLOC_TRIM_THRESHOLD_=$((256 << 20)) MALLOC_MMAP_THRESHOLD_=$((32 << 20))

for name in typical hostile; do
  echo "== $name"
  "$bench" "$work/$name.json"
  python3 - "$work/$name.json" <<'PY'
import json, resource, sys, time
text = open(sys.argv[1], "rb").read()
faults = lambda: resource.getrusage(resource.RUSAGE_SELF).ru_minflt
best, best_faults = float("inf"), 0
for _ in range(3):
    before, start = faults(), time.perf_counter()
    json.loads(text)
    seconds = time.perf_counter() - start
    if seconds < best:
        best, best_faults = seconds, faults() - before
print(f"python_json_seconds={best:.6g}")
print(f"python_page_faults={best_faults}")
print(f"python_peak_kib={resource.getrusage(resource.RUSAGE_SELF).ru_maxrss}")
PY
done
