#!/usr/bin/env bash
# Builds and runs the package consumer with nothing but the installed kivsdk.pc, the way a Makefile would:
#   c++ main.cpp $(pkg-config --cflags --libs kivsdk)
# Usage: tests/package/pkg_config.sh <install prefix> <work folder> <compiler> [compiler flags]
set -euo pipefail
prefix=$1
work=$2
compiler=$3
flags=${4:-}
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

pc_file=$(find "$prefix" -path '*/pkgconfig/kivsdk.pc' | head -n 1)
[ -n "$pc_file" ] || { echo "no kivsdk.pc under $prefix" >&2; exit 1; }
export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$pc_file")
mkdir -p "$work"
# Word splitting of the flags and of pkg-config's answer is wanted here.
# shellcheck disable=SC2046,SC2086
"$compiler" $flags "$here/main.cpp" -o "$work/consumer" $(pkg-config --cflags --libs kivsdk)
"$work/consumer"
