#!/usr/bin/env bash
# Documents.sh RASTER PICTURES FOLDER: takes documents through the program as users do, in an empty FOLDER.
set -uo pipefail

raster=$1 pictures=$2
rm -rf "$3"
mkdir -p "$3/in"
cd "$3" || exit 1
failures=0

Fail() {
    printf 'FAILED: %s\n' "$*"
    failures=$((failures + 1))
}
# Run CODE ARGUMENT...: runs `raster document` and holds its exit code to be CODE.
Run() {
    local wanted=$1 code
    shift
    last="raster document $*"
    "$raster" document "$@" >stdout.txt 2>stderr.txt </dev/null
    code=$?
    [ $code -eq "$wanted" ] || { Fail "$last: ends with $code, not $wanted"; cat stderr.txt; }
    [ -z "$(find . -name '.*saving*' -o -name '.raster-*')" ] || Fail "$last: leaves something behind"
}
Says() { grep -qF -- "$1" stderr.txt || { Fail "$last: doesn't say '$1'"; cat stderr.txt; }; }
Prints() { grep -qF -- "$1" stdout.txt || { Fail "$last: doesn't print '$1'"; cat stdout.txt; }; }
Same() { cmp -s "$1" "$2" || Fail "$last: $1 and $2 differ"; }
Differ() { ! cmp -s "$1" "$2" || Fail "$last: $1 and $2 are the same"; }
# Flip FILE OFFSET: changes one byte.
Flip() {
    local byte
    byte=$(od -An -tu1 -j "$2" -N1 "$1")
    printf "\\x$(printf %x $((byte ^ 1)))" | dd of="$1" bs=1 seek="$2" conv=notrunc status=none
}

"$pictures" in 600 >/dev/null || { echo "the pictures can't be made"; exit 1; }
photo=in/landscape.jpg badge=in/badge.png

# --- What is placed stays as it is.
Run 0 create a.doc $photo $badge
Run 0 info a.doc
Prints "600 x 400 pixels"
Prints "layer 1      landscape.jpg"
Prints "as its file"
Prints "0 damaged"
Run 0 extract a.doc 1 out.jpg --original
Same out.jpg $photo
Run 0 extract a.doc 2 out.png --original
Same out.png $badge
Run 0 extract a.doc 1 layer.png
"$raster" convert $photo photo.png 2>/dev/null
Same layer.png photo.png
[ "$(stat -c %s a.doc)" -lt $(($(stat -c %s $photo) + $(stat -c %s $badge) + 100000)) ] || Fail "$last: is too large"

# --- Painting saves in place, and only what changed.
cp a.doc before.doc
Run 0 fill a.doc --layer 1 --rect 10,20,100,50 --colour '#ff0000'
Says "new items"
head -c "$(stat -c %s before.doc)" a.doc >head.doc
Same head.doc before.doc # it was appended to
Run 0 stamp a.doc $badge --layer 1 --at 200,100 --opacity 0.5
Run 0 extract a.doc 1 painted.png
Differ painted.png photo.png
Run 0 extract a.doc 1 out.jpg --original
Same out.jpg $photo # the file that was placed is still there
Run 0 flatten a.doc flat.png
"$raster" composite painted.png $badge composed.png 2>/dev/null
Same flat.png composed.png
Run 0 verify a.doc
Prints "whole"
Run 0 info a.doc --json
Prints '"isPending": false'
Prints '"commit": 3'

# --- Compaction drops what is dead, and nothing else.
before=$(stat -c %s a.doc)
Run 0 compact a.doc
[ "$(stat -c %s a.doc)" -lt "$before" ] || Fail "$last: isn't smaller"
Run 0 flatten a.doc again.png
Same again.png flat.png

# --- Wrong use.
Run 1 info none.doc
Says "raster: none.doc: can't be opened"
Run 1 info $badge
Says "not a document"
Run 1 extract a.doc 7 out.png
Says "has no layer 7; it has 2"
Run 1 create b.doc $photo in/none.png
Says "raster: in/none.png"
[ ! -e b.doc ] || Fail "$last: b.doc is there"
Run 1 create a.doc $photo --no-clobber
Run 2 fill a.doc --layer 1 --rect 1,2,3 --colour '#ff0000'
Run 2 fill a.doc --layer 0 --rect 1,2,3,4 --colour '#ff0000'
Run 2 frobnicate a.doc

# --- Damage is found, does no harm, and what is whole is saved.
cp a.doc broken.doc
Flip broken.doc 1000
Run 1 verify broken.doc
Prints "is damaged"
cp broken.doc untouched.doc
Run 1 compact broken.doc
Same broken.doc untouched.doc
Run 0 compact broken.doc --keep-damaged
Run 1 verify broken.doc
Run 0 salvage broken.doc saved.doc
Run 0 info saved.doc
Prints "layer 2      badge.png"
head -c 100000 a.doc >cut.doc
Run 1 info cut.doc
Run 0 salvage cut.doc saved.doc
Says "items saved"

# --- A full disk leaves the document as it was.
cp a.doc full.doc
(ulimit -f $(($(stat -c %s full.doc) / 1024 + 8)) && "$raster" document stamp full.doc $photo --layer 2 >stdout.txt 2>stderr.txt)
[ $? -eq 1 ] || Fail "stamp on a full disk doesn't end with 1"
Says "nothing was saved"
Same full.doc a.doc

# --- Ended by a signal, the document is the old one or the new one.
for delay in 0.01 0.03 0.06 0.1 0.2; do
    cp a.doc ended.doc
    timeout -s INT $delay "$raster" document stamp ended.doc $photo --layer 2 >/dev/null 2>&1
    last="stamp ended after $delay s"
    "$raster" document verify ended.doc >stdout.txt 2>stderr.txt || Fail "$last: $(cat stdout.txt stderr.txt)"
done

[ $failures -eq 0 ] || { echo "$failures failed"; exit 1; }
echo "all as it should be"
