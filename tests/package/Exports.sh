#!/usr/bin/env bash
# Exports.sh LIBRARY: every name that the shared library exports is in a namespace of its own, there are some, and its
# SONAME has a version.
set -eu
exported=$(nm -D --defined-only "$1" | cut -d ' ' -f 3)
own='[KRO]*(6Raster|6Kernel|8Geometry|3Bmp)'
# Mangled: a function, data, or a static of a function, with its guard; a table, type record or thunk of one.
if foreign=$(printf '%s\n' "$exported" | grep -vE "^_Z(GV)?Z?N$own|^_ZT[A-Za-z]([a-z]*n?[0-9]+_)*N$own"); then
    printf 'exported, but not ours:\n%s\n' "$(printf '%s\n' "$foreign" | c++filt)"
    exit 1
fi
for namespace in 6Kernel 6Raster; do
    printf '%s\n' "$exported" | grep -q "^_ZN$namespace" || { echo "nothing of $namespace is exported"; exit 1; }
done

readelf -d "$1" | grep -qE 'SONAME.*\[libraster\.so\.[0-9]+\.[0-9]+\]' || { echo "the SONAME has no version"; exit 1; }
echo "$(printf '%s\n' "$exported" | wc -l) names are exported"
