#!/usr/bin/env bash
# Checks what libkivsdk.so exports: every function that kivsdk.h declares, and otherwise only the C++ API of
# namespaces kiv and zu (their functions, data, virtual tables and type information, template instances
# included), none of it from their detail or internal namespaces and nothing of the libraries linked in.
# Names are judged in their mangled form, where the owner's namespace comes first (the demangled form of a
# template instance starts with its return type); they are shown demangled.
# Usage: check_exports.sh <libkivsdk.so> <kivsdk.h>
set -euo pipefail
library=$1
header=$2

exports=$(nm -D --defined-only "$library" | awk '{ print $3 }' | sed 's/@.*//')
failed=0

declared=$(grep -oE '\bkiv_[a-z0-9_]+\(' "$header" | tr -d '(' | sort -u)
for function in $declared; do
  grep -qx "$function" <<<"$exports" || { echo "not exported: $function"; failed=1; }
done
if [ "$(grep -c . <<<"$declared")" -lt 60 ]; then
  echo "kivsdk.h declares fewer functions than expected"
  failed=1
fi

# A C++ entity of kiv or zu: special names (vtable, typeinfo, guard variable, thunk) or a nested name, then
# the namespace, then a name (its length) or an operator (two letters). Its first component under the
# namespace must not be detail or internal.
owner='^_Z(T[hv][n0-9_]+)?[A-Z]*(3kiv|2zu)'
public="^(kiv_[a-z0-9_]+|KIVSDK_[0-9]+)\$|${owner}([0-9]|[a-z]{2})"
problems=$({ grep -vE "$public" <<<"$exports"; grep -E "${owner}(6detail|8internal)" <<<"$exports"; } || true)
if [ -n "$problems" ]; then
  printf 'exported but not public:\n%s\n' "$(c++filt <<<"$problems")"
  failed=1
fi
exit $failed
