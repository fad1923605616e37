#!/usr/bin/env bash
# The checks CI runs besides the test suite (scripts/test.sh), one stage at a time:
#   format    clang-format --dry-run -Werror on every tracked C++ file
#   tidy      clang-tidy with the project's .clang-tidy on the sources a change touches, findings are errors
#             (see tidy_selection below); tidy-all reads every source and records the clean commit
#   asan      the whole suite under AddressSanitizer and UndefinedBehaviorSanitizer (scripts/test.sh asan)
#   tsan      the test programs that start threads (label "threads") under ThreadSanitizer
#   bench     builds the benchmarks with the bench preset, as their run scripts do (the test build compiles
#             them too, so that CI sees them build)
#   fuzz      builds the fuzz targets with libFuzzer (fuzz preset) and replays their corpora
#   docs      the API reference (Doxygen over the installed public headers, target docs); a warning fails it
# Usage: scripts/check.sh [stage...]   (no stage: format docs tidy asan tsan fuzz, in this order)
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
jobs=$(nproc)

"$root/scripts/setup.sh"
cd "$root"

sources() { git ls-files "$@" | grep -E '\.(cpp|hpp)$'; }

check_format() {
  sources | xargs clang-format --dry-run -Werror
}

# clang-tidy reads each source with the flags of the test build (scripts/test.sh), which compiles every
# source of the tree but the package consumers; its dependency log says which sources include a header.
tidy_build=build/asan
# The commit at which every source last passed clang-tidy; `scripts/check.sh tidy-all` records it.
tidy_clean=.ci/tidy-clean

prepare_tidy_build() {
  cmake --preset asan >/dev/null
  cmake --build --preset asan --parallel "$jobs" >/dev/null
}

# The sources to read: all of them when no clean commit is recorded in this history or when the tidy
# configuration changed since; otherwise what changed since that commit (committed or not): changed sources,
# the sources that include a changed header, and the sources beside a changed CMakeLists.txt (their flags).
tidy_selection() {
  local base changed
  base=$(cat "$tidy_clean" 2>/dev/null || true)
  if [ -z "$base" ] || ! git merge-base --is-ancestor "$base" HEAD 2>/dev/null; then
    sources | grep -E '\.cpp$'
    return
  fi
  changed=$({ git diff --name-only "$base" --; git ls-files --others --exclude-standard; } | sort -u)
  if grep -qxE '\.clang-tidy|CMakePresets\.json|cmake/.*|scripts/check\.sh' <<<"$changed"; then
    sources | grep -E '\.cpp$'
    return
  fi
  {
    grep -E '\.cpp$' <<<"$changed" || true
    sed -n 's|CMakeLists\.txt$||p' <<<"$changed" | while read -r folder; do
      git ls-files "${folder:-.}" | grep -E '^'"$folder"'[^/]*\.cpp$' || true
    done
    ninja -C "$tidy_build" -t deps | root="$root/" changed="$changed" awk '
      BEGIN { n = split(ENVIRON["changed"], list, "\n"); for (i = 1; i <= n; i++) wanted[ENVIRON["root"] list[i]] = 1 }
      /^[^ ]/ { source = ""; next }
      /^    / { path = $1; if (source == "") source = path; else if (path in wanted) print source }' |
      sed "s|^$root/||"
  } | sort -u | while read -r file; do [ -f "$file" ] && git ls-files --error-unmatch "$file" >/dev/null 2>&1 \
    && echo "$file"; done
}

# Runs clang-tidy on the sources named on standard input; findings are errors.
run_tidy() {
  # The package consumers are compiled only against an installed SDK (by the package tests), so they are read
  # with the include paths install gives.
  local consumer_flags
  consumer_flags=$(echo -std=c++20 -fPIC -IZuSharedLibaries -I. $(pkg-config --cflags Qt6Widgets))
  while read -r file; do
    case "$file" in
      tests/package/*) echo "$file -- $consumer_flags" ;;
      *) echo "-p $tidy_build $file" ;;
    esac
  done | xargs -r -P "$jobs" -L 1 clang-tidy --quiet --warnings-as-errors='*' 2>/dev/null
}

check_tidy() {
  prepare_tidy_build
  local selected
  selected=$(tidy_selection)
  echo "clang-tidy: $(grep -c . <<<"$selected" || true) source(s) changed since the last clean commit" \
    "($(cat "$tidy_clean" 2>/dev/null || echo none))"
  [ -z "$selected" ] || run_tidy <<<"$selected"
}

check_tidy-all() {
  prepare_tidy_build
  local clean_tree
  clean_tree=$(git status --porcelain --untracked-files=no)
  sources | grep -E '\.cpp$' | run_tidy
  if [ -z "$clean_tree" ]; then
    git rev-parse HEAD >"$tidy_clean"
    echo "every source is clean at $(cat "$tidy_clean"): commit $tidy_clean to record it"
  fi
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

# On the test build's configuration, which CI has made by then.
check_docs() {
  cmake --preset asan >/dev/null
  cmake --build --preset asan --target docs
}

check_fuzz() {
  cmake --preset fuzz
  cmake --build --preset fuzz --parallel "$jobs"
  ctest --preset fuzz
}

stages=("$@")
[ ${#stages[@]} -gt 0 ] || stages=(format docs tidy asan tsan fuzz)
for stage in "${stages[@]}"; do
  declare -F "check_$stage" >/dev/null || { echo "unknown stage: $stage" >&2; exit 2; }
  "check_$stage"
done
