#!/usr/bin/env bash
# FirstProgram.sh ROOT PREFIX BUILD: the program that the README shows builds by the lines that it shows, and works.
set -eu
rm -rf "$3"
mkdir -p "$3"
readme="$1/README.md"
cd "$3"
Block() { sed -n "/^\`\`\`$1\$/,/^\`\`\`\$/{/^\`\`\`/d;p}" "$readme"; } # what stands between the fences of a language
Block cpp >mine.cpp
Block cmake >CMakeLists.txt
"$CMAKE" -S . -B build -DCMAKE_PREFIX_PATH="$2" -DCMAKE_BUILD_TYPE=Debug
"$CMAKE" --build build

# One grey pixel of 40.
base64 -d >in.png <<<'iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAAAAAA6fptVAAAACklEQVR4nGPQAAAAKgApazFUcwAAAABJRU5ErkJggg=='
build/mine in.png out.png
build/mine out.png again.png
build/mine again.png third.png
cmp out.png third.png # the negative of the negative
! cmp -s out.png again.png || exit 1
! build/mine none.png out.png || exit 1
