#!/usr/bin/env bash
# Report store benchmark. Builds kivmodel_bench (bench preset), then persists and loads 10,000 reports of
# 10 files each (all with metadata) in a scratch folder, each operation in its own process so that each peak
# memory figure is its own. The load is also timed against libplist's bare parse of the same stored bytes.
# Usage: bench/KivModel/run.sh
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --preset bench >/dev/null
cmake --build --preset bench --target kivmodel_bench >/dev/null
bench="$root/build/bench/bench/KivModel/kivmodel_bench"

"$bench" persist "$work"
"$bench" load "$work"
