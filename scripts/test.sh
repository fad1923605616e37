#!/usr/bin/env bash
# Sets the machine up, builds everything (libraries, tools, tests, examples and benchmarks) and runs the whole
# test suite once, under the address and undefined-behaviour sanitizers: one build finds both wrong results and
# memory faults.
# Usage: scripts/test.sh [preset]   (asan, default or tsan; default is "asan")
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
preset=${1:-asan}

"$root/scripts/setup.sh"
cd "$root"
cmake --preset "$preset"
cmake --build --preset "$preset" --parallel "$(nproc)"
ctest --preset "$preset"
