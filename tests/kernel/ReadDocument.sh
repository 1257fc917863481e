#!/usr/bin/env bash
# ReadDocument.sh ROOT SAMPLES FOLDER: holds tools/read-document against the library, on documents that the program
# SAMPLES makes in an empty FOLDER. Neither Python nor zstd is needed to build or to use the library, so that this is
# skipped, with 77, where one of them is missing.
set -eu
for program in python3 zstd; do
    "$program" --version >/dev/null 2>&1 || { echo "skipped: $program is not installed"; exit 77; }
done
rm -rf "$3"
mkdir -p "$3"
exec python3 -B "$1/tests/kernel/ReadDocument.py" "$1" "$2" "$3"
