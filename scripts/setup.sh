#!/usr/bin/env bash
# Installs every Debian package the build and the tests need (scripts/debian-packages.txt), plus those of any
# further list named on the command line (bench/debian-packages.txt for the benchmarks' reference tools).
# Safe to run again: it only calls apt-get when something is missing.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

mapfile -t wanted < <(cat "$here/debian-packages.txt" "$@" | grep -v -E '^\s*(#|$)')
missing=()
for package in "${wanted[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
