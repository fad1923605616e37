#!/usr/bin/env bash
# Report store benchmark. Builds kivmodel_bench (bench preset), then, for each list size, persists and
# loads that many reports of 10 files each (all with metadata) in a scratch folder, each operation in its own
# process so that each peak memory figure is its own. The load is timed against libplist's bare parse of the
# same stored bytes, each the first in a fresh process, as at an application's start-up: the best of five
# processes each. The persist's peak memory is also given against the list's own (the process's peak once the
# list is built), and its time per report, which should not grow with the list.
# Usage: bench/KivModel/run.sh [reports...]   (default: 10000 1000 50000)
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --preset bench >/dev/null
cmake --build --preset bench --target kivmodel_bench >/dev/null
bench="$root/build/bench/bench/KivModel/kivmodel_bench"

# The smallest figure under each key over five runs of the command "$@".
best_of_five() {
  for _ in 1 2 3 4 5; do "$@"; done |
    awk -F= '!($1 in v) || $2 + 0 < v[$1] + 0 { v[$1] = $2 } END { for (k in v) print k "=" v[k] }' | sort
}

sizes=("$@")
[ ${#sizes[@]} -gt 0 ] || sizes=(10000 1000 50000)
for count in "${sizes[@]}"; do
  echo "reports=$count"
  mkdir "$work/$count"
  "$bench" persist "$work/$count" "$count"
  best_of_five "$bench" load "$work/$count" "$count" | tee "$work/load"
  best_of_five "$bench" parse "$work/$count" | tee "$work/parse"
  awk -F= '{ v[$1] = $2 } END {
    printf "load_to_parse_ratio=%.3f\nload_to_parse_cpu_ratio=%.3f\n",
      v["load_seconds"] / v["bare_parse_seconds"], v["load_cpu_seconds"] / v["bare_parse_cpu_seconds"] }' \
    "$work/load" "$work/parse"
  rm -rf "${work:?}/$count"
done
