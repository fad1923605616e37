#!/usr/bin/env bash
# Sets the machine up, builds the SDK and runs the main job: builds an evidence report from the media files
# given on the command line (or from sample files it makes itself), fingerprints every file and prints the
# report as the certification service receives it.
# Usage: scripts/demo.sh [media files...]
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

"$root/scripts/setup.sh"
cd "$root"
cmake --preset default >/dev/null
cmake --build --preset default --target report_from_files
"$root/build/default/examples/report_from_files" "$@"
