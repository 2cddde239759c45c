#!/usr/bin/env bash
# Prints, one per line and sorted, every function that the public headers in
# INCLUDE_DIR/tarn declare with TARN_API: the library's whole exported API.
set -euo pipefail
cat "$1"/tarn/*.h | grep -v '^[[:space:]]*#' | tr '\n' ' ' |
  grep -oE 'TARN_API[^;{]*' | sed -E 's/\(.*//' | awk '{print $NF}' | tr -d '*' | sort -u
