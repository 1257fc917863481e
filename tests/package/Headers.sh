#!/usr/bin/env bash
# Headers.sh FOLDER: each installed header compiles alone with the installed tree as its only include path, without a
# warning, and names nothing but its neighbours and the standard library.
set -eu
cd "$1"

if foreign=$(grep -rnE '^[[:space:]]*#[[:space:]]*include[[:space:]]*<' . | grep -vE '<[a-z_]+>'); then
    printf 'headers of other libraries in public headers:\n%s\n' "$foreign"
    exit 1
fi

headers=$(find . -name '*.h' | sort)
count=$(printf '%s\n' "$headers" | grep -c .) || { echo "no header is installed"; exit 1; }
export flags="-std=c++20 -I. -x c++ -fsyntax-only -Wall -Wextra -Wpedantic -Wshadow -Werror"
printf '%s\n' "$headers" | xargs -P "$(nproc)" -I{} sh -c '
    printf "#include \"%s\"\n" "$1" | "$CXX" $flags - || { echo "does not compile alone: $1"; exit 1; }' sh {}
echo "$count headers compile alone"
