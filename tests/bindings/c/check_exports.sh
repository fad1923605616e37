#!/usr/bin/env bash
# Checks what libkivsdk.so exports: every function that kivsdk.h declares, and otherwise only the C++ API of
# namespaces kiv and zu (their functions, data, virtual tables and type information), none of it from a
# detail or internal namespace and nothing of the libraries linked into it.
# Usage: check_exports.sh <libkivsdk.so> <kivsdk.h>
set -euo pipefail
library=$1
header=$2

exports=$(nm -D --defined-only "$library" | awk '{ print $3 }' | sed 's/@.*//' | c++filt)
failed=0

declared=$(grep -oE '\bkiv_[a-z0-9_]+\(' "$header" | tr -d '(' | sort -u)
for function in $declared; do
  grep -qx "$function" <<<"$exports" || { echo "not exported: $function"; failed=1; }
done

public='^(kiv_[a-z0-9_]+|KIVSDK_[0-9]+|((typeinfo( name)?|vtable|VTT|guard variable) for )?(kiv|zu)::.*|(non-)?virtual thunk to (kiv|zu)::.*)$'
problems=$({ grep -vE "$public" <<<"$exports"; grep -E '(^|[ :])(kiv|zu)::(detail|internal)::' <<<"$exports"; } || true)
if [ -n "$problems" ]; then
  printf 'exported but not public:\n%s\n' "$problems"
  failed=1
fi
if [ "$(grep -c . <<<"$declared")" -lt 60 ]; then
  echo "kivsdk.h declares fewer functions than expected"
  failed=1
fi
exit $failed
