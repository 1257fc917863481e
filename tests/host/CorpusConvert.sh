#!/usr/bin/env bash
# CorpusConvert.sh RASTER FOLDER: holds the pixels of converted pictures against those that GraphicsMagick reads, where
# that is installed and RASTER_CORPUS names pictures. Works in FOLDER, which is emptied.
set -uo pipefail
for program in python3 gm; do
    command -v "$program" >/dev/null || { echo "skipped: $program isn't installed"; exit 77; }
done
[ -d "${RASTER_CORPUS-}/png" ] || { echo "skipped: RASTER_CORPUS names no folder with PNG files"; exit 77; }
rm -rf "$2" && mkdir -p "$2" || exit 1
exec python3 -B "${0%.sh}.py" "$1" "$RASTER_CORPUS" "$2"
