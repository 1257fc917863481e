#!/usr/bin/env bash
# Install.sh BUILD PREFIX: installs BUILD into an empty PREFIX.
set -eu
rm -rf "$2"
"$CMAKE" --install "$1" --prefix "$2"
