#!/usr/bin/env bash
# Runs the C evidence flow against the service of a CTest fixture, with a fresh data folder and photo.
# With a compiler, it first builds the program the way a Makefile would, with nothing but the installed
# kivsdk-shared.pc:
#   cc -std=c99 evidence_flow.c $(pkg-config --cflags --libs kivsdk-shared)
# Usage: run_flow.sh <fixture folder> <work folder> <program>
#        run_flow.sh <fixture folder> <work folder> --build <install prefix> <C compiler> [compiler flags]
set -euo pipefail
fixture=$1
work=$2
program=$3
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
rm -rf "$work/data" && mkdir -p "$work/data" "$work/media"

if [ "$program" = --build ]; then
  pc_file=$(find "$4" -path '*/pkgconfig/kivsdk-shared.pc' | head -n 1)
  [ -n "$pc_file" ] || { echo "no kivsdk-shared.pc under $4" >&2; exit 1; }
  export PKG_CONFIG_PATH
  PKG_CONFIG_PATH=$(dirname "$pc_file")
  program=$work/evidence_flow
  # Word splitting of the flags and of pkg-config's answer is wanted here.
  # shellcheck disable=SC2046,SC2086
  "$5" ${6:-} -std=c99 -Wall -Wextra -pedantic -Werror "$here/evidence_flow.c" -o "$program" -pthread \
    $(pkg-config --cflags --libs kivsdk-shared) -Wl,-rpath,"$(pkg-config --variable=libdir kivsdk-shared)"
fi

value() { sed -n "s/^$1=//p" "$fixture/fixture"; }
head -c 150000 /dev/urandom >"$work/media/leak.jpg"
"$program" "$(value base)" "$(value ca)" "$(value token)" "$work/data" "$work/media/leak.jpg"
