#!/usr/bin/env bash
# Documents.sh RASTER PICTURES FOLDER: takes documents through the program as users do, in an empty FOLDER.
set -uo pipefail

raster=$1 pictures=$2
recorded=$(cd "$(dirname "${BASH_SOURCE[0]}")/../data" && pwd)/version-1.doc
rm -rf "$3"
mkdir -p "$3/in"
cd "$3" || exit 1
failures=0

# Where the first item of a type begins in a file; types lie in it backwards. Its id is random, line ends included.
FindItem() { perl -0777 -ne "print \$-[0] if /Item.{20}$2/s" "$1"; }

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

# --- A document of the first version of the format opens for ever.
cp "$recorded" old.doc
Run 0 verify old.doc
Run 0 info old.doc
Prints "layer 5      Placed (90 x 60 RGBA8, at 5,5, opacity 1), pending: as its file"
Run 0 extract old.doc 6 old.png
Run 0 flatten old.doc old.png
Run 0 fill old.doc --layer 1 --rect 0,0,9,9 --colour white
Run 0 compact old.doc
Run 0 verify old.doc

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

# --- Layers of one name are told apart by number.
mkdir -p one two
cp $photo one/p.jpg
"$raster" convert $badge two/p.jpg 2>/dev/null
Run 0 create same.doc one/p.jpg two/p.jpg
Run 0 extract same.doc 2 out.jpg --original
Same out.jpg two/p.jpg
Run 0 extract same.doc 1 out.jpg --original
Same out.jpg one/p.jpg

# --- What is beside the layer is no change.
cp a.doc beside.doc
Run 0 fill beside.doc --layer 1 --rect 100000,0,5,5 --colour white
Says "beside layer 1, which is 600 x 400 pixels"
Run 0 fill beside.doc --layer 1 --rect 5,5,0,5 --colour white
Run 0 stamp beside.doc $badge --layer 1 --at -100000,0
Says "nothing was changed"
Same beside.doc a.doc

# --- Compaction drops what is dead, and nothing else.
before=$(stat -c %s a.doc)
Run 0 compact a.doc
[ "$(stat -c %s a.doc)" -lt "$before" ] || Fail "$last: isn't smaller"
Run 0 flatten a.doc again.png
Same again.png flat.png

# --- Facts for programs, also of what fails.
Run 0 info a.doc --json
Prints '"kinds": {'
Prints '"isPending": true'
Run 0 info a.doc
Prints "files        2, "
Prints "tiles        "
Run 1 info none.doc --json
Prints '"error": "can'"'"'t be opened: No such file or directory; see that the name is right"'
Says "raster: none.doc: can't be opened"

# --- Wrong use.
Run 1 info none.doc
Says "raster: none.doc: can't be opened"
Run 1 salvage none.doc saved.doc
Says "raster: none.doc: can't be opened: No such file or directory; see that the name is right"
Run 1 verify in
Says "Is a directory; name a document in that folder"
Run 1 info /dev/null
Says "a document is always a file"
Run 1 info $badge
Says "not a document"
Run 1 extract a.doc 7 out.png
Says "has no layer 7; it has 2"
Run 1 create b.doc $photo in/none.png
Says "raster: in/none.png"
[ ! -e b.doc ] || Fail "$last: b.doc is there"
Run 1 create a.doc $photo --no-clobber
cp $photo mine.jpg
Run 1 create mine.jpg $badge
Says "is no document; name the new document first"
Same mine.jpg $photo
Run 1 salvage a.doc mine.jpg
Same mine.jpg $photo
Run 1 create none/b.doc $badge
Says "raster: none/b.doc: there is no folder 'none'; make it first"
Run 1 create . $badge
Run 1 create '' $badge
Says "is no name for a file"
: >empty.doc
Run 1 info empty.doc
Run 1 salvage empty.doc saved.doc
Run 0 create empty.doc $badge # of an empty file nothing is lost
Run 1 create b.doc a.doc
Says "raster: a.doc: is a document; \`raster document extract\` makes pictures of its layers"
Run 1 stamp a.doc a.doc --layer 1
Says "raster: a.doc: is a document; \`raster document extract\` makes pictures of its layers"
Run 1 stamp a.doc none.png --layer 1
Says "raster: none.png: can't be opened"
Run 1 stamp a.doc $badge --layer 3
Says "has no layer 3; it has 2"
Run 1 verify none.doc
Run 1 salvage none.doc saved.doc
cp a.doc itself.doc
Run 1 salvage itself.doc itself.doc
Says "OUT is the damaged document itself"
Run 1 salvage itself.doc ./itself.doc
Same itself.doc a.doc
Run 1 salvage a.doc none/saved.doc
Says "raster: none/saved.doc: there is no folder"
Run 1 salvage a.doc mine.doc/x
Run 2 extract a.doc 10001 out.png
Run 2 extract a.doc one out.png
Run 2 fill a.doc --layer 1 --rect 0,0,-1,1 --colour white
Run 2 stamp a.doc $badge --layer 1 --at 1
Run 2 verify
Run 2 create c.doc
[ ! -e c.doc ] || Fail "$last: c.doc is there"
Run 2 fill a.doc --layer 1 --rect 1,2,3 --colour '#ff0000'
Run 2 fill a.doc --layer 0 --rect 1,2,3,4 --colour '#ff0000'
Run 2 frobnicate a.doc

# --- No picture takes the place of a document.
cp a.doc other.doc
for out in a.doc other.doc; do
    Run 1 extract a.doc 1 $out --original
    Says "raster: $out: is a document; name another file for the picture"
    Run 1 extract a.doc 1 $out --type png
    Run 1 flatten a.doc $out --type png
    Same $out itself.doc
done

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
Says "salvage"
Run 0 salvage cut.doc saved.doc
Says "items saved"

# --- Where the list of layers is lost, or a layer, the placed files are layers again.
Run 0 create broken.doc $photo $badge $badge
Run 0 flatten broken.doc out.png
Flip broken.doc $(($(FindItem broken.doc mrtS) + 100)) # the lowest layer, whose picture belongs below the others
Run 0 salvage broken.doc saved.doc
Says "what is there makes 3"
Run 0 flatten saved.doc again.png
Same again.png out.png
"$raster" document create fresh.doc $photo $badge 2>/dev/null
head -c $(($(stat -c %s $photo) + 1000)) fresh.doc >cut.doc # the first file, and hardly more
Run 0 salvage cut.doc saved.doc
Says "layers were lost; what is there makes 1"
Run 0 info saved.doc
Prints "0 damaged"
Run 0 extract saved.doc 1 out.jpg --original
Same out.jpg $photo
Run 0 extract saved.doc 1 out.png --dpi 100
"$raster" convert $photo photo.png --dpi 100 2>/dev/null
Same out.png photo.png
Run 0 verify saved.doc
Run 0 salvage fresh.doc saved.doc
Run 0 flatten saved.doc out.png
Run 0 flatten fresh.doc again.png
Same out.png again.png

# --- A damaged header: the document doesn't open, and all of it is saved, whatever byte it is.
for at in 0 9 12 20 60; do
    cp a.doc broken.doc
    Flip broken.doc $at
    Run 1 verify broken.doc
    Run 1 fill broken.doc --layer 1 --rect 0,0,5,5 --colour white
    Says "salvage"
    Run 0 salvage broken.doc saved.doc
    Says "; 0 lost"
    Run 0 flatten saved.doc again.png
    Same again.png flat.png
done

# --- A damaged profile isn't left out of the next save unawares.
cp a.doc broken.doc
Flip broken.doc $(($(FindItem a.doc bOhS) + 200))
Run 1 verify broken.doc
Prints "of type ShOb"
cp broken.doc untouched.doc
Run 1 fill broken.doc --layer 2 --rect 0,0,9,9 --colour white
Says "such as a profile, can't be read"
Says "--keep-damaged"
Same broken.doc untouched.doc
Run 0 extract broken.doc 2 out.png
Says "warning: the profile of layer"
Run 0 fill broken.doc --layer 2 --rect 0,0,9,9 --colour white --keep-damaged

# --- Where damage is kept the layer goes on naming it, whatever is done, and has it again once its bytes are back.
cp a.doc whole.doc
Run 0 fill whole.doc --layer 2 --rect 0,0,9,9 --colour white
Run 0 extract whole.doc 2 whole.png
CheckLost() {
    Run 1 verify broken.doc
    Prints "$1"
    Run 0 info broken.doc
    Prints ", its profile missing or damaged"
    Prints "(\`raster document verify\` tells which)"
    Run 0 info broken.doc --json
    Prints '"isProfileLost": true'
    Run 0 extract broken.doc 2 out.png
    Says "warning: the profile of layer"
    Differ out.png whole.png
    Run 0 flatten broken.doc out.png
    Says "warning: the profile of layer"
    cp broken.doc untouched.doc
    Run 1 fill broken.doc --layer 2 --rect 0,0,9,9 --colour white
    Says "--keep-damaged"
    Run 1 compact broken.doc
    Same broken.doc untouched.doc
}
EditLost() {
    Run 0 fill broken.doc --layer 2 --rect 5,5,9,9 --colour black --keep-damaged
    Run 0 stamp broken.doc $photo --layer 2 --keep-damaged
    Says "warning: the profile of layer"
    CheckLost "$1"
    Run 0 compact broken.doc --keep-damaged
    CheckLost "$1"
    Run 0 fill broken.doc --layer 2 --rect 0,0,700,700 --colour black --keep-damaged
    CheckLost "$1"
}
CheckLost "of type ShOb"
EditLost "of type ShOb"
Run 0 salvage broken.doc missing.doc
Says "1 lost"
Flip broken.doc $(($(FindItem broken.doc bOhS) + 200)) # there is one, as the file was written anew
Run 0 verify broken.doc
Run 0 info broken.doc --json
! grep -q '"isProfileLost": true' stdout.txt || Fail "$last: a profile is still lost"
Run 0 fill whole.doc --layer 2 --rect 0,0,700,700 --colour black
Run 0 extract whole.doc 2 whole.png
Run 0 extract broken.doc 2 out.png
Same out.png whole.png
mv missing.doc broken.doc
CheckLost "refers to an item that is missing"
EditLost "refers to an item that is missing"

# --- Where the last save is damaged, none goes on top of the one before until that is salvaged.
cp a.doc broken.doc
Run 0 fill broken.doc --layer 2 --rect 0,0,9,9 --colour black
Run 0 flatten broken.doc last.png
Flip broken.doc $(($(stat -c %s broken.doc) - 30))
cp broken.doc untouched.doc
Run 1 fill broken.doc --layer 1 --rect 0,0,9,9 --colour white
Says "raster: broken.doc: its last save is damaged"
Says "salvage"
Run 1 compact broken.doc
Same broken.doc untouched.doc
Run 0 salvage broken.doc saved.doc
Run 0 flatten saved.doc again.png
Same again.png last.png
Run 0 fill broken.doc --layer 1 --rect 0,0,9,9 --colour white --keep-damaged

# --- A damaged tile is told of, and isn't painted on unawares.
cp a.doc broken.doc
Flip broken.doc $(($(FindItem a.doc ItaD) + 300))
Run 1 verify broken.doc
Prints "of type DatI"
Run 0 info broken.doc
Prints "1 damaged (\`raster document verify\` tells which)"
Run 0 extract broken.doc 1 out.png
Says "warning: a tile of layer"
Run 0 flatten broken.doc out.png
Says "warning: a tile of layer"
cp broken.doc untouched.doc
Run 1 fill broken.doc --layer 1 --rect 0,0,600,400 --colour white
Says "--keep-damaged"
Run 1 stamp broken.doc $photo --layer 1
Same broken.doc untouched.doc
Run 0 fill broken.doc --layer 1 --rect 0,0,600,400 --colour white --keep-damaged
Run 0 extract broken.doc 1 out.png

# --- A placed file that can't be decoded isn't an empty picture to be written, and nothing is painted on its layer.
cp $badge in/broken.png
Flip in/broken.png $(($(perl -0777 -ne 'print $-[0] if /IDAT/' $badge) + 20))
"$raster" resize $photo in/large.jpg --scale 2 2>/dev/null
Run 0 create broken.doc in/broken.png in/large.jpg
cp broken.doc untouched.doc
rm -f out.png
for what in 'extract broken.doc 1 out.png' 'flatten broken.doc out.png' "stamp broken.doc $badge" \
    'fill broken.doc --rect 0,0,9,9 --colour white' 'fill broken.doc --rect 0,0,9,9 --colour white --keep-damaged'; do
    # shellcheck disable=SC2086
    Run 1 $what
    Says "the file of layer \"broken.png\" can't be decoded: "
    Says "extract --original"
done
[ ! -e out.png ] || Fail "$last: out.png is there"
Run 0 extract broken.doc 1 out.png --original
Same out.png in/broken.png
Run 1 fill broken.doc --layer 2 --rect 0,0,9,9 --colour white --decode-limit 1
Says "can't be decoded"
Says "a larger --decode-limit opens it"
Run 1 extract broken.doc 2 out.png --decode-limit 1
Same broken.doc untouched.doc
Run 0 fill broken.doc --layer 2 --rect 0,0,9,9 --colour white
head -c $(($(stat -c %s $photo) * 3 / 4)) $photo >in/short.jpg
Run 0 create broken.doc in/short.jpg
Run 0 extract broken.doc 1 out.png
Says "warning: the file of layer \"short.jpg\" is damaged (the file ends early)"
Run 1 extract broken.doc 1 out.png --strict
Says "leave --strict out"
# Salvage makes layers of files that can't be decoded here, too.
Run 0 create broken.doc in/broken.png in/large.jpg
Flip broken.doc $(($(FindItem broken.doc mrtS) + 100))
Run 0 salvage broken.doc saved.doc --decode-limit 1
Says "what is there makes 2"
Run 0 extract saved.doc 1 out.png --original
Same out.png in/broken.png

# --- Standard input may be placed; a file of that name is another matter, and so is one where a picture is to go.
cp a.doc ./-
"$raster" document create piped.doc - <$photo 2>stderr.txt || Fail "create of standard input ends with $?"
Run 0 extract piped.doc 1 out.jpg --original
Same out.jpg $photo
Run 2 create piped.doc - -
Says "standard input can be read once only"
Run 2 flatten a.doc -
Says "standard output needs --type"
"$raster" document flatten a.doc - --type png >out.png 2>stderr.txt || Fail "flatten to standard output ends with $?"
Same out.png flat.png
Run 1 stamp a.doc -
Says "standard input is empty"
rm ./-

# --- What a result lacks is told, as it is of other commands.
{ printf '\xff\xd8\xff\xe1\x00\x22Exif\x00\x00II*\x00\x08\x00\x00\x00\x01\x00\x12\x01\x03\x00\x01\x00\x00\x00\x06\x00\x00\x00\x00\x00\x00\x00'
    tail -c +3 $photo; } >in/turned.jpg
"$raster" info in/turned.jpg | grep -q 'orientation  6' || Fail "in/turned.jpg isn't turned"
Run 0 create turned.doc in/turned.jpg
Says "the file says how to turn the picture (6), and the layer shows it as it is stored"
Run 0 extract turned.doc 1 out.png
Says "the file says how to turn the picture (6), which isn't kept"
Says "metadata isn't kept: EXIF"
Run 0 flatten turned.doc out.png
Says "the file says how to turn the picture (6)"
Run 0 stamp turned.doc in/turned.jpg
Says "raster: in/turned.jpg: warning: the file says how to turn the picture (6)"
"$raster" convert $photo grey.png --format IA8 2>/dev/null
Run 0 create mixed.doc grey.png $photo
Run 0 flatten mixed.doc out.png
Says "raster: mixed.doc, layer 2: note: colours"
Run 0 stamp mixed.doc $photo
Says "raster: $photo: note: colours"

# --- A full disk leaves the document as it was.
cp a.doc full.doc
(ulimit -f $(($(stat -c %s full.doc) / 1024 + 8)) && "$raster" document stamp full.doc $photo --layer 2 >stdout.txt 2>stderr.txt)
[ $? -eq 1 ] || Fail "stamp on a full disk doesn't end with 1"
Says "nothing was saved"
Same full.doc a.doc

# --- Nor does one that nothing may be written to. Root may always, so it becomes somebody else, in a place that is open to
# all: this folder may lie where nobody but its owner gets to.
own=$raster place=$(mktemp -d)
trap 'chmod -R u+rwx "$place"; rm -rf "$place"' EXIT
mkdir "$place/open" "$place/shut" "$place/blind"
for folder in open shut blind; do
    cp a.doc "$place/$folder/a.doc"
done
if [ "$(id -u)" -eq 0 ]; then
    chown -R 65534:65534 "$place"
    cp "$own" "$place/program"
    printf '#!/bin/sh\nexec setpriv --reuid 65534 --regid 65534 --clear-groups "%s" "$@"\n' "$place/program" >"$place/raster"
    chmod 755 "$place/program" "$place/raster"
    raster=$place/raster
fi
chmod 444 "$place/open/a.doc"
chmod 555 "$place/shut"
chmod 333 "$place/blind"
# LeavesNothing FOLDER: there is nothing in it but the document.
LeavesNothing() { [ "$(ls -A "$place/$1")" = a.doc ] || Fail "$last: leaves something behind"; }
if "$raster" --version >stdout.txt 2>&1; then
    Run 1 fill "$place/open/a.doc" --layer 1 --rect 0,0,5,5 --colour white
    Says "Permission denied"
    Run 1 compact "$place/open/a.doc"
    Says "Permission denied"
    Same "$place/open/a.doc" a.doc
    LeavesNothing open
    Run 1 create "$place/shut/b.doc" $badge
    Says "nothing can be written to the folder"
    Run 1 compact "$place/shut/a.doc"
    Says "no file can be made beside it: Permission denied; nothing was saved"
    Same "$place/shut/a.doc" a.doc
    Run 0 fill "$place/shut/a.doc" --layer 1 --rect 0,0,5,5 --colour white # which needs no other file
    LeavesNothing shut
    Run 0 compact "$place/blind/a.doc"
    Run 0 verify "$place/blind/a.doc"
    chmod 755 "$place/blind"
    LeavesNothing blind
else
    echo "not tested: what a user who isn't root may not write to"
fi
raster=$own

# --- Ended by a signal, nothing is left behind, and soon.
for number in 1 2 3 4 5 6 7 8; do
    cp $photo in/more-$number.jpg
done
"$raster" document create many.doc in/more-*.jpg 2>/dev/null
for layer in 1 2 3 4 5 6 7 8; do
    "$raster" document fill many.doc --layer $layer --rect 0,0,9,9 --colour white 2>/dev/null
done
cp many.doc whole.doc
for what in 'compact many.doc' 'create new.doc in/more-1.jpg in/more-2.jpg' 'salvage many.doc new.doc'; do
    for delay in 0.005 0.02 0.04 0.08; do
        rm -f new.doc
        # shellcheck disable=SC2086
        timeout -s TERM $delay "$raster" document $what >/dev/null 2>&1
        code=$?
        last="$what ended after $delay s"
        [ $code -eq 0 ] || [ $code -eq 124 ] || Fail "$last: ends with $code"
        [ -z "$(find . -name '.*saving*')" ] || Fail "$last: leaves something behind"
        [ ! -e new.doc ] || "$raster" document verify new.doc >/dev/null 2>&1 || Fail "$last: new.doc isn't whole"
        "$raster" document verify many.doc >/dev/null 2>&1 || Fail "$last: many.doc isn't whole"
    done
done

# --- Salvage puts nothing in its place that doesn't open: not before the layers are mended.
cp many.doc broken.doc
Flip broken.doc $(($(FindItem broken.doc mrtS) + 100))
cp a.doc saved.doc
for delay in 0.01 0.02 0.03 0.04 0.05 0.06 0.07 0.08 0.1 0.12 0.15; do
    timeout -s TERM $delay "$raster" document salvage broken.doc saved.doc >/dev/null 2>&1
    code=$?
    last="salvage ended after $delay s"
    [ $code -eq 0 ] || cmp -s saved.doc a.doc || "$raster" document info saved.doc >/dev/null 2>&1 ||
        Fail "$last: saved.doc doesn't open"
    [ -z "$(find . -name '.*saving*')" ] || Fail "$last: leaves something behind"
done
Run 0 salvage broken.doc saved.doc
Run 0 info saved.doc
Prints "0 damaged"
Run 1 salvage broken.doc saved.doc --no-clobber
mkdir -p sub && ln -sf ../saved.doc sub/link.doc
Run 0 salvage broken.doc sub/link.doc
[ -L sub/link.doc ] || Fail "$last: the link is gone"
Run 0 verify saved.doc

# --- Ended by a signal, the document is the old one or the new one.
for delay in 0.01 0.03 0.06 0.1 0.2; do
    cp a.doc ended.doc
    timeout -s INT $delay "$raster" document stamp ended.doc $photo --layer 2 >/dev/null 2>&1
    last="stamp ended after $delay s"
    "$raster" document verify ended.doc >stdout.txt 2>stderr.txt || Fail "$last: $(cat stdout.txt stderr.txt)"
done

[ $failures -eq 0 ] || { echo "$failures failed"; exit 1; }
echo "all as it should be"
