#!/usr/bin/env bash
# Readme.sh ROOT: the README names the packages that tools/install-dependencies installs, and no other.
set -eu
cd "$1"
diff <(tools/install-dependencies --list) \
    <(sed -n '/^apt-get install/,/^```/p' README.md | tr -s ' \\' '\n' | grep -vE '^(apt-get|install|--.*|```|)$' | LC_ALL=C sort)
