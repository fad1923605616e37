#!/usr/bin/env bash
# Sets the machine up, builds everything and runs the whole test suite.
# Usage: scripts/test.sh [preset]   (default, asan or tsan; default is "default")
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
preset=${1:-default}

"$root/scripts/setup.sh"
cd "$root"
cmake --preset "$preset"
cmake --build --preset "$preset" --parallel "$(nproc)"
ctest --preset "$preset"
