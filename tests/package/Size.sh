#!/usr/bin/env bash
# Size.sh LIBRARY: the shared library stays within its budget once it is stripped.
set -eu
budget=25000000
stripped=$(mktemp)
trap 'rm -f "$stripped"' EXIT
strip -o "$stripped" "$1"
size=$(stat -c %s "$stripped")
echo "$size bytes stripped, $budget allowed"
[ "$size" -le "$budget" ]
