#!/usr/bin/env bash
# Exports.sh LIBRARY: every name that the shared library exports is in a namespace of its own, there are some, and its
# SONAME has a version.
set -eu
exported=$(nm -DC --defined-only "$1" | cut -c 20-)
own='(Raster|Kernel|Geometry|Bmp)::'
# Demangled names of functions may begin with a result type, those of tables and thunks with a word on what they are.
if foreign=$(printf '%s\n' "$exported" | grep -vE "^$own|^[a-zA-Z -]+ (for|to) $own"); then
    printf 'exported, but not ours:\n%s\n' "$foreign"
    exit 1
fi
printf '%s\n' "$exported" | grep -q '^Kernel::' || { echo "no name of the foundation is exported"; exit 1; }
printf '%s\n' "$exported" | grep -q '^Raster::' || { echo "no name of the raster library is exported"; exit 1; }

readelf -d "$1" | grep -qE 'SONAME.*\[libraster\.so\.[0-9]+\.[0-9]+\]' || { echo "the SONAME has no version"; exit 1; }
echo "$(printf '%s\n' "$exported" | wc -l) names are exported"
