#!/usr/bin/env bash
# ExamplesByPkgConfig.sh Shared|Static PREFIX LIBRARIES EXAMPLES BUILD: builds EXAMPLES with the flags of raster.pc.
set -eu
source "$(dirname "$0")/Examples.sh"
rm -rf "$5"
mkdir -p "$5"
export PKG_CONFIG_PATH="$3/pkgconfig"
if [ "$1" = Static ]; then
    # Both libraries stand in one folder and linkers prefer the shared one, so the static one is named in full.
    libraries=$(pkg-config --static --libs raster | sed 's/-lraster/-l:libraster.a/')
else
    libraries="$(pkg-config --libs raster) -Wl,-rpath,$3"
fi
flags=$(pkg-config --cflags raster)
for source in "$4"/*.cpp; do
    echo "$(basename "$source"): $flags $libraries"
    # shellcheck disable=SC2086 # flags are words
    "$CXX" -std=c++20 -O1 "$source" $flags $libraries -o "$5/$(basename "$source" .cpp)"
done
RunExamples "$5" "$1"
