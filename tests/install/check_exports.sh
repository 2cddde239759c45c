#!/usr/bin/env bash
# The shared library's dynamic symbol table holds only the public C API.
set -euo pipefail
lib=$1
bad=$(nm -D --defined-only "$lib" | awk '{print $NF}' | grep -v -E '^(tarn|tarnd|tarnm|omni)_' || true)
if [ -n "$bad" ]; then
  echo "symbols outside the public API:"
  echo "$bad"
  exit 1
fi
echo "$(nm -D --defined-only "$lib" | wc -l) exported symbols, all with a public prefix"
