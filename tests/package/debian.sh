#!/usr/bin/env bash
# Checks the Debian packages that CPack made: their file lists and control fields, and a C host built with
# nothing but the packages unpacked into a scratch root (dpkg-deb -x), with pkg-config and with CMake.
# Usage: tests/package/debian.sh <folder of the .deb files> <work folder> <C compiler> [compiler flags]
set -euo pipefail
debs=$1
work=$2
compiler=$3
flags=${4:-}
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
failed=0
fail() { echo "$*" >&2; failed=1; }

package() { find "$debs" -maxdepth 1 -name "$1_*.deb" | head -n 1; }
dev=$(package libkivsdk-dev)
tools=$(package kiv-tools)
service=$(package kiv-service)
for deb in "$dev" "$tools" "$service"; do [ -n "$deb" ] || { echo "missing package in $debs" >&2; exit 1; }; done

files() { dpkg-deb -c "$1" | awk '{ print $6 }' | sed 's|^\./|/|'; }
expect() { grep -qx "$2" <<<"$(files "$1")" || fail "$(basename "$1") lacks $2"; }
depends() { dpkg-deb -f "$1" Depends; }

for deb in "$dev" "$tools" "$service"; do
  strays=$(files "$deb" | grep -E '/(tests?|bench|fuzz|CMakeFiles)/|\.(o|cpp|in)$|(_test|Tests?)\.[a-z]+$' || true)
  [ -z "$strays" ] || fail "$(basename "$deb") carries test or build files: $strays"
done
headers_elsewhere=$(files "$dev" | grep -E '\.(h|hpp)$' | grep -v '^/usr/include/kivsdk/' || true)
[ -z "$headers_elsewhere" ] || fail "headers outside /usr/include/kivsdk: $headers_elsewhere"
expect "$dev" '/usr/include/kivsdk/kivsdk.h'
expect "$dev" '/usr/include/kivsdk/KivSDK/API/KivAPI.hpp'
grep -qE '^/usr/lib/(.*/)?libkivsdk\.so\.0$' <<<"$(files "$dev")" || fail "no libkivsdk.so.0 in the development package"
grep -qE '^/usr/lib/(.*/)?libKivSDK\.a$' <<<"$(files "$dev")" || fail "no libKivSDK.a in the development package"
grep -qE '/pkgconfig/kivsdk-shared\.pc$' <<<"$(files "$dev")" || fail "no kivsdk-shared.pc"
grep -qE '/cmake/KivSDK/KivSDKConfig\.cmake$' <<<"$(files "$dev")" || fail "no CMake package"
expect "$tools" '/usr/bin/kiv'
expect "$service" '/usr/bin/kiv-service'
expect "$service" '/usr/lib/systemd/system/kiv-service.service'
expect "$service" '/etc/default/kiv-service'
if grep -q 'kiv-service' <<<"$(files "$tools"; files "$dev")"; then fail "kiv-service outside its package"; fi

grep -q 'libcurl4-openssl-dev' <<<"$(depends "$dev")" || fail "libkivsdk-dev does not depend on curl's -dev package"
grep -q 'libc6' <<<"$(depends "$dev")" || fail "libkivsdk-dev has no shared-library dependencies"
grep -q 'libcurl4' <<<"$(depends "$tools")" || fail "kiv-tools has no shared-library dependencies"
grep -q 'adduser' <<<"$(depends "$service")" || fail "kiv-service does not depend on adduser"
# Lists are read whole before grep looks at them: a grep -q that stops early would break a pipe that
# pipefail then reports as a failure.
grep -qx './postinst' <<<"$(dpkg-deb --ctrl-tarfile "$service" | tar -t)" || fail "kiv-service has no postinst"
grep -q '/etc/default/kiv-service' <<<"$(dpkg-deb -I "$service" conffiles)" || fail "settings are no conffile"

root=$work/root
rm -rf "$root" && mkdir -p "$root"
for deb in "$dev" "$tools" "$service"; do dpkg-deb -x "$deb" "$root"; done
pc_file=$(find "$root" -path '*/pkgconfig/kivsdk-shared.pc' | head -n 1)
export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$pc_file")
# Word splitting of the flags and of pkg-config's answer is wanted here.
# shellcheck disable=SC2046,SC2086
"$compiler" $flags -std=c99 -Wall -Wextra -pedantic -Werror "$here/../bindings/c/evidence_flow.c" \
  -o "$work/evidence_flow" -pthread $(pkg-config --cflags --libs kivsdk-shared)
LD_LIBRARY_PATH=$(pkg-config --variable=libdir kivsdk-shared) "$work/evidence_flow" >/dev/null 2>&1 && status=0 || status=$?
[ "$status" -eq 2 ] || fail "the C host built against the packages did not start (status $status)"
cmake -S "$here/../bindings/c/consumer" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$root/usr" \
  "-DCMAKE_C_FLAGS=$flags" "-DCMAKE_CXX_FLAGS=$flags" >/dev/null || fail "find_package(KivSDK) in the unpacked root failed"
cmake --build "$work/cmake" >/dev/null || fail "the CMake host did not build against the unpacked root"
exit $failed
