#!/usr/bin/env bash
# ExamplesByCMake.sh Shared|Static PREFIX LIBRARIES EXAMPLES BUILD: builds EXAMPLES with the CMake package in PREFIX.
set -eu
source "$(dirname "$0")/Examples.sh"
rm -rf "$5"
"$CMAKE" -S "$4" -B "$5" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH="$2" -DEXAMPLES_LINKAGE="$1"
"$CMAKE" --build "$5"
RunExamples "$5/bin" "$1"
