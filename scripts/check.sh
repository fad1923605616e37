#!/usr/bin/env bash
# The checks CI runs besides the test suite (scripts/test.sh), one stage at a time:
#   format  clang-format --dry-run -Werror on every tracked C++ file
#   tidy    clang-tidy with the project's .clang-tidy on every tracked source, findings are errors
#   asan    the whole suite under AddressSanitizer and UndefinedBehaviorSanitizer (scripts/test.sh asan)
#   tsan    the test programs that start threads (label "threads") under ThreadSanitizer
#   bench   builds the benchmarks (bench preset); running them is bench/*/run.sh
#   fuzz    builds the fuzz targets with libFuzzer (fuzz preset) and replays their corpora
# Usage: scripts/check.sh [stage...]   (no stage: all of them, in this order)
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
jobs=$(nproc)

"$root/scripts/setup.sh"
cd "$root"

sources() { git ls-files "$@" | grep -E '\.(cpp|hpp)$'; }

check_format() {
  sources | xargs clang-format --dry-run -Werror
}

check_tidy() {
  cmake --preset default >/dev/null
  cmake --preset bench >/dev/null
  # Each source is read with the flags of the build that compiles it. The package consumers are compiled only
  # against an installed SDK (by the package tests), so they are read with the include paths install gives.
  local consumer_flags
  consumer_flags=$(echo -std=c++20 -fPIC -IZuSharedLibaries -I. $(pkg-config --cflags Qt6Widgets))
  {
    sources ':!bench' ':!tests/package' | grep -E '\.cpp$' | sed 's|^|-p build/default |'
    sources bench | grep -E '\.cpp$' | sed 's|^|-p build/bench |'
    sources tests/package | grep -E '\.cpp$' | sed "s|\$| -- $consumer_flags|"
  } | xargs -P "$jobs" -L 1 clang-tidy --quiet --warnings-as-errors='*' 2>/dev/null
}

check_asan() {
  scripts/test.sh asan
}

check_tsan() {
  cmake --preset tsan
  cmake --build --preset tsan --parallel "$jobs" --target kiv_threaded_tests
  ctest --preset tsan --label-regex threads
}

check_bench() {
  cmake --preset bench
  cmake --build --preset bench --parallel "$jobs"
}

check_fuzz() {
  cmake --preset fuzz
  cmake --build --preset fuzz --parallel "$jobs"
  ctest --preset fuzz
}

stages=("$@")
[ ${#stages[@]} -gt 0 ] || stages=(format tidy asan tsan bench fuzz)
for stage in "${stages[@]}"; do
  declare -F "check_$stage" >/dev/null || { echo "unknown stage: $stage" >&2; exit 2; }
  "check_$stage"
done
