#!/usr/bin/env bash
# Readme.sh ROOT: the README names the packages that tools/install-dependencies installs and no other, and the index of
# docs/ names every page.
set -eu
cd "$1"
diff <(tools/install-dependencies --list) \
    <(sed -n '/^apt-get install/,/^```/p' README.md | tr -s ' \\' '\n' | grep -vE '^(apt-get|install|--.*|```|)$' | LC_ALL=C sort)
for page in docs/*.md; do
    [ "$page" = docs/README.md ] || grep -qF "($(basename "$page"))" docs/README.md || { echo "not in docs/README.md: $page"; exit 1; }
done
