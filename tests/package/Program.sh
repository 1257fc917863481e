#!/usr/bin/env bash
# Program.sh PREFIX ROOT: the installed program runs, has its page and its completion, needs no library of ours, and was
# written with what users of the library have: every header that it includes is installed.
set -eu
raster="$1/bin/raster"
"$raster" --version | grep -qE '^raster [0-9]+\.[0-9]+\.[0-9]+$'
"$raster" profile list | grep -q sRGB
! readelf -d "$raster" | grep 'NEEDED.*libraster' || { echo "it needs the shared library"; exit 1; }
grep -q "^\.TH RASTER" "$1/share/man/man1/raster.1"

missing=0
while read -r header; do
    case $header in
        host/*) [ -f "$2/$header" ] || { echo "$header isn't there"; missing=1; } ;;
        *) [ -f "$1/include/raster/$header" ] || { echo "not a public header: $header"; missing=1; } ;;
    esac
done < <(grep -rhoE '^#include "[^"]+"' "$2/host" | sed 's/^#include "//; s/"$//' | sort -u)
[ $missing -eq 0 ]

# Each option that the program knows is in its page and in its completion, and the other way round.
commands="info convert resize thumbnail composite"
for command in $commands; do
    options=$("$raster" $command --help | grep -oE -- '--[a-z-]+' | sort -u)
    for option in $options; do
        grep -qF -- "$(sed 's/-/\\-/g' <<<"$option")" "$1/share/man/man1/raster.1" || { echo "$option isn't in the page"; missing=1; }
        grep -qF -- "$option" "$1/share/bash-completion/completions/raster" || { echo "$option isn't completed"; missing=1; }
    done
done
for action in $("$raster" document --help | sed -n '/^SUBCOMMANDS:/I,$s/^  \([a-z]\{1,\}\) .*/\1/p'); do
    for option in $("$raster" document "$action" --help | grep -oE -- '--[a-z-]+' | sort -u); do
        grep -qF -- "$(sed 's/-/\\-/g' <<<"$option")" "$1/share/man/man1/raster.1" || { echo "document $action $option isn't in the page"; missing=1; }
        grep -qF -- "$option" "$1/share/bash-completion/completions/raster" || { echo "document $action $option isn't completed"; missing=1; }
    done
    grep -qF -- "$action" "$1/share/man/man1/raster.1" || { echo "document $action isn't in the page"; missing=1; }
done
source "$1/share/bash-completion/completions/raster"
for command in $commands; do
    COMP_WORDS=(raster $command --) COMP_CWORD=2 COMPREPLY=()
    _raster
    for option in "${COMPREPLY[@]}"; do
        "$raster" $command --help | grep -qF -- "$option" || "$raster" --help | grep -qF -- "$option" ||
            { echo "$command has no $option"; missing=1; }
    done
    [ ${#COMPREPLY[@]} -gt 8 ] || { echo "nothing is completed for $command"; missing=1; }
done
[ $missing -eq 0 ]
