#!/usr/bin/env bash
# EndToEnd.sh RASTER PICTURES PROFILES FOLDER [SLOW]: runs the program as users do, in an empty FOLDER: what it does, what
# it says, how it ends. PICTURES and PROFILES are the programs that make what it is run on. SLOW: a sanitizer slows it.
set -uo pipefail

raster=$1 pictures=$2 profiles=$3 slow=${5-}
rm -rf "$4"
mkdir -p "$4/in" "$4/out"
cd "$4" || exit 1
unset NO_COLOR
failures=0

Fail() {
    printf 'FAILED: %s\n' "$*"
    failures=$((failures + 1))
}

# Run CODE ARGUMENT...: runs the program and holds its exit code to be CODE.
Run() {
    local wanted=$1 code
    shift
    last="raster $*"
    "$raster" "$@" >stdout.txt 2>stderr.txt </dev/null
    code=$?
    [ $code -eq "$wanted" ] || { Fail "$last: ends with $code, not $wanted"; cat stderr.txt; }
    no_leftovers
}
no_leftovers() {
    local left
    left=$(find . -name '.raster-*')
    [ -z "$left" ] || { Fail "$last: leaves $left"; rm -f $left; }
}
Says() { grep -qF -- "$1" stderr.txt || { Fail "$last: doesn't say '$1'"; cat stderr.txt; }; }
SaysNot() { ! grep -qF -- "$1" stderr.txt || { Fail "$last: says '$1'"; cat stderr.txt; }; }
Silent() { [ ! -s stderr.txt ] || { Fail "$last: isn't silent"; cat stderr.txt; }; }
Prints() { grep -qF -- "$1" stdout.txt || { Fail "$last: doesn't print '$1'"; cat stdout.txt; }; }
Exists() { [ -s "$1" ] || Fail "$last: $1 isn't there"; }
Missing() { [ ! -e "$1" ] || Fail "$last: $1 is there"; }
Same() { cmp -s "$1" "$2" || Fail "$last: $1 and $2 differ"; }
Differ() { ! cmp -s "$1" "$2" || Fail "$last: $1 and $2 are the same"; }
# IsPicture FILE TYPE WIDTH HEIGHT FORMAT
IsPicture() {
    Run 0 info "$1" --json
    Prints "\"type\": \"$2\""
    Prints "\"width\": $3"
    Prints "\"height\": $4"
    Prints "\"format\": \"$5\""
}

# --- What it is run on.
"$pictures" in 600 >/dev/null && "$profiles" in || { echo "the pictures can't be made"; exit 1; }
photo=in/landscape.jpg badge=in/badge.png

# Puts an EXIF segment with an orientation behind the start of a JPEG.
Orient() { # NUMBER FROM TO
    { printf '\xff\xd8\xff\xe1\x00\x22Exif\x00\x00MM\x00\x2a\x00\x00\x00\x08\x00\x01\x01\x12\x00\x03\x00\x00\x00\x01\x00\x0'"$1"'\x00\x00\x00\x00\x00\x00'
      tail -c +3 "$2"; } >"$3"
}

# --- info
Run 0 info $photo $badge
Silent
Prints "600 x 400 pixels"
Prints "300 dpi"
Prints "sRGB"
[ "$(grep -c orientation stdout.txt)" -eq 2 ] || Fail "$last: doesn't describe both"
printf 'no picture' >in/notes.txt
: >in/empty.png
mkfifo in/pipe
Run 1 info $photo in/notes.txt in/none.png in/empty.png in in/pipe /dev/null $badge
Says "raster: in/notes.txt: is not a picture of a known type; JPEG and PNG files can be read"
Says "raster: in/none.png: can't be opened (No such file or directory)"
Says "raster: in/empty.png: is empty"
Says "raster: in: is a folder"
Says "raster: in/pipe: is a pipe; use '-'"
Says "raster: /dev/null: is a device"
[ "$(grep -c orientation stdout.txt)" -eq 2 ] || Fail "$last: doesn't describe the sound ones"
name=$(printf 'in/no\xffutf\n8')
cp $badge "$name"
Run 1 info --json "$name" in/notes.txt
cat >expected.txt <<'END'
{
  "version": 1,
  "files": [
    {
      "file": "in/no�utf\u000a8",
      "type": "PNG",
      "width": 200,
      "height": 200,
      "format": "RGBA8",
      "dpi": 300,
      "profile": "sRGB built-in",
      "profileIsFallback": false,
      "orientation": 1,
      "decodedBytes": 160000
    },
    {
      "file": "in/notes.txt",
      "error": "is not a picture of a known type; JPEG and PNG files can be read"
    }
  ]
}
END
diff expected.txt stdout.txt || Fail "$last: other JSON"
last="raster info -"
"$raster" info - <$photo >stdout.txt 2>stderr.txt || Fail "$last: doesn't read standard input"
Prints "600 x 400"

# --- convert: types, formats, determinism
Run 0 convert $photo out/a.png
Silent
IsPicture out/a.png PNG 600 400 RGBA8
Run 0 convert out/a.png out/b.png
Same out/a.png out/b.png
Run 0 convert out/a.png out/b.png --threads 1
Same out/a.png out/b.png
Run 0 convert out/a.png out/b.png --memory 1
Same out/a.png out/b.png
Run 0 convert $photo out/b --type png
Same out/a.png out/b
Run 0 convert $photo out/q90.jpg
Run 0 convert $photo out/q90b.jpg --quality 90
Same out/q90.jpg out/q90b.jpg
Run 0 convert $photo out/q10.jpg --quality 10
[ "$(stat -c %s out/q10.jpg)" -lt "$(stat -c %s out/q90.jpg)" ] || Fail "$last: quality 10 isn't smaller"
Run 0 convert $photo out/p.jpg --progressive
Differ out/q90.jpg out/p.jpg
Run 0 convert out/p.jpg out/p.png
Run 0 convert out/q90.jpg out/q90.png
Same out/p.png out/q90.png
Run 0 convert $photo out/deep.png --format RGBA16
IsPicture out/deep.png PNG 600 400 RGBA16
Run 0 convert out/deep.png out/shallow.jpg
Says "JPEG can't hold RGBA16; RGBA8 is written"
Says "channels of 16 bits become 8 bits"
Same out/shallow.jpg out/q90.jpg
Run 0 convert out/deep.png out/shallow.jpg --quiet
Silent
Run 0 convert $photo out/grey.jpg --format IA8
IsPicture out/grey.jpg JPEG 600 400 IA8
Run 0 convert $photo out/dpi.png --dpi 150
Run 0 info out/dpi.png
Prints "150 dpi"
Run 0 info out/a.png
Prints "300 dpi"

# --- convert: alpha
Run 0 convert $badge out/badge.jpg
Says "transparency isn't kept: the picture is laid over #ffffff"
Run 0 convert $badge out/badge2.jpg --background '#ffffff'
Same out/badge.jpg out/badge2.jpg
Run 0 convert $badge out/badge2.jpg --background black
Differ out/badge.jpg out/badge2.jpg
Run 0 convert $badge out/flat.png --strip-alpha
Says "laid over #ffffff"
Run 0 convert out/flat.png out/badge2.jpg
Same out/badge.jpg out/badge2.jpg
SaysNot "transparency"
Run 0 convert $badge out/badge.png
Says "the colour of wholly transparent pixels isn't kept"
Run 0 convert out/badge.png out/badge2.png
Same out/badge.png out/badge2.png

# --- convert: colours
Run 0 convert $photo out/wide.png --profile in/wide.icc --intent relative --bpc
Says "colours are managed from sRGB built-in to wide (relative, black point compensated)"
Run 0 info out/wide.png
Prints "profile      wide"
Run 0 convert $photo out/inks.jpg --profile in/inks.icc
IsPicture out/inks.jpg JPEG 600 400 CMYKA8
Prints '"profile": "inks"'
Prints '"profileIsFallback": false'
Run 0 convert out/inks.jpg out/inks.png
Says "PNG can't hold CMYKA8; RGBA8 is written"
Says "colours are managed from inks to sRGB built-in (perceptual)"
Run 0 info out/inks.png --json
Prints '"profileIsFallback": true'
Run 0 convert $photo out/formula.jpg --format CMYKA8
Says "colours go from RGB to CMYK by formula, since no profile is known for CMYK; --profile names one"
Run 0 convert out/formula.jpg out/formula.png
Says "by formula, since no profile is known for CMYK; --assume-profile names one"
Run 0 convert out/formula.jpg out/assumed.png --assume-profile in/inks.icc
Says "colours are managed from inks to sRGB"
Differ out/formula.png out/assumed.png
Run 0 convert out/formula.png out/tagged.png --profile in/wide.icc
Says "has no profile and is taken as sRGB built-in"
Run 1 convert $photo out/none.png --profile in/inks.icc
Says "the profile inks is for CMYK"
Missing out/none.png
Run 1 convert out/formula.jpg out/none.png --assume-profile in/wide.icc
Says "isn't for CMYKA8"
Run 1 convert $photo out/none.png --profile in/notes.txt
Says "is no colour profile"
Run 1 convert $photo out/none.png --profile nowhere
Says "there is no profile or file 'nowhere'"
Missing out/none.png
Run 0 convert $photo out/named.png --profile 'sRGB built-in'
Same out/named.png out/a.png

# --- convert: orientation
for orientation in 1 2 3 4 5 6 7 8; do
    Orient $orientation $photo "in/o$orientation.jpg"
    Run 0 convert "in/o$orientation.jpg" "out/o$orientation.png" --auto-orient
    Says "metadata isn't kept: EXIF"
    SaysNot "warning"
done
IsPicture out/o3.png PNG 600 400 RGBA8
IsPicture out/o6.png PNG 400 600 RGBA8
Same out/o1.png out/a.png
Run 0 convert in/o6.jpg out/asis.png
Says "warning: the file says how to turn the picture (6)"
Same out/asis.png out/a.png
Run 0 resize in/o6.jpg out/upright.png --width 100 --auto-orient
IsPicture out/upright.png PNG 100 150 RGBA8

# --- damaged files
head -c 15000 $photo >in/cut.jpg
Run 0 convert in/cut.jpg out/cut.png
Says "warning: the file ends early"
Exists out/cut.png
Run 1 convert in/cut.jpg out/strict.png --strict
Missing out/strict.png
head -c 5000 $badge >in/cut.png
cp out/a.png out/before.png
Run 1 convert in/cut.png out/before.png
Same out/before.png out/a.png
Says "raster: in/cut.png: "

# --- where it is written
cp out/a.png out/self.png
chmod 640 out/self.png
ln -s self.png out/link.png
Run 0 resize out/link.png out/link.png --scale 0.5
[ -L out/link.png ] || Fail "$last: the link is gone"
[ "$(stat -c %a out/self.png)" = 640 ] || Fail "$last: another mode"
IsPicture out/self.png PNG 300 200 RGBA8
Run 1 convert $photo out/self.png --no-clobber
Says "is there already"
IsPicture out/self.png PNG 300 200 RGBA8
Run 1 convert $photo out/no/such.png
Says "raster: out/no/such.png: there is no folder 'out/no'; make it first"
mkdir out/folder.png
Run 1 convert $photo out/folder.png
Says "is a folder; name a file in it"
Run 0 convert $photo /dev/null --type png
last="raster convert - -"
"$raster" convert - - --type png <$photo >out/piped.png 2>stderr.txt || Fail "$last fails"
Same out/piped.png out/a.png
last="raster convert IN - into a closed pipe"
{ "$raster" convert $photo - --type png 2>stderr.txt; echo $? >code.txt; } | true
[ "$(cat code.txt)" -eq 1 ] || [ "$(cat code.txt)" -eq 0 ] || Fail "$last: ends with $(cat code.txt)"
last="raster convert with a full disk"
(ulimit -f 50; "$raster" convert $photo out/full.png 2>stderr.txt)
[ $? -eq 1 ] || Fail "$last doesn't end with 1"
Says "raster: out/full.png: can't be written (File too large)"
Missing out/full.png
no_leftovers
if [ "$(id -u)" -ne 0 ]; then
    mkdir out/closed
    chmod 500 out/closed
    Run 1 convert $photo out/closed/a.png
    Says "nothing can be written to the folder 'out/closed'"
    chmod 700 out/closed
fi

# --- limits
Run 0 resize $photo out/large.png --width 900
Run 1 convert out/large.png out/none.png --decode-limit 1
Says "a larger --decode-limit opens it"
Missing out/none.png
Run 0 resize $photo out/strip.png --width 20000 --height 3 --stretch
Run 1 resize out/strip.png out/none.png --scale 2
Says "raster: out/none.png: PNG holds 32767 pixels a side at most, and this would be 40000 x 6; --force cuts it"
Missing out/none.png
Run 0 resize out/strip.png out/forced.png --scale 2 --force
IsPicture out/forced.png PNG 32767 6 RGBA8

# --- resize
Run 0 resize $photo out/r.png --width 150
IsPicture out/r.png PNG 150 100 RGBA8
Run 0 resize $photo out/r.png --height 33
IsPicture out/r.png PNG 50 33 RGBA8
Run 0 resize $photo out/r.png --width 60 --height 60
IsPicture out/r.png PNG 60 40 RGBA8
Run 0 resize $photo out/r.png --width 61 --height 59 --stretch
IsPicture out/r.png PNG 61 59 RGBA8
Run 0 resize $photo out/r.png --scale 1.5
IsPicture out/r.png PNG 900 600 RGBA8
Run 0 resize out/a.png out/r.png --scale 1
Same out/r.png out/a.png
Run 0 resize $photo out/r.png --scale 0.3
Run 0 resize $photo out/r1.png --scale 0.3 --threads 1 --memory 1
Same out/r.png out/r1.png
Run 0 resize $photo out/r.jpg --width 100 # stays opaque to the edges
SaysNot "transparency"

# --- thumbnail
Run 0 thumbnail $photo $badge in/o6.jpg --size 64 --out out/thumbs/new
Silent
IsPicture out/thumbs/new/landscape.jpg JPEG 64 43 RGBA8
IsPicture out/thumbs/new/badge.png PNG 64 64 RGBA8
IsPicture out/thumbs/new/o6.jpg JPEG 43 64 RGBA8
Run 0 thumbnail $badge --size 5000 --out out/thumbs
IsPicture out/thumbs/badge.png PNG 200 200 RGBA8
Run 1 thumbnail $photo in/notes.txt in/cut.jpg --size 64 --out out/thumbs
Says "raster: in/notes.txt: "
Says "raster: in/cut.jpg: warning: the file ends early"
Same out/thumbs/landscape.jpg out/thumbs/new/landscape.jpg
Exists out/thumbs/cut.jpg
Run 2 thumbnail in/a.jpg out/a.png --size 64 --out out/clash
Says "'in/a.jpg' and 'out/a.png' would both become out/clash/a.jpg"
Missing out/clash
Run 2 thumbnail $photo --size 64 --out in
Says "would be replaced by its thumbnail"
Run 1 thumbnail $photo --size 64 --out out/thumbs --no-clobber
Says "raster: out/thumbs/landscape.jpg: is there already"
many=()
for i in $(seq 20); do cp $photo "in/many$i.jpg"; many+=("in/many$i.jpg"); done
Run 0 thumbnail "${many[@]}" --size 64 --out out/many --decode-limit 2 --threads 4
for i in $(seq 20); do Same "out/many/many$i.jpg" out/thumbs/landscape.jpg; done

# --- composite
Run 0 composite out/a.png $badge out/c.png --at 40,50
IsPicture out/c.png PNG 600 400 RGBA8
Differ out/c.png out/a.png
Run 0 composite out/a.png $badge out/c0.png --opacity 0
Same out/c0.png out/a.png
Run 0 composite out/a.png $badge out/c0.png --at 600,0
Same out/c0.png out/a.png
Run 0 composite out/a.png $badge out/c4.png --at 40,50 --rotate 360
Run 0 composite out/a.png $badge out/c2.png --at 40,50 --rotate 90 --scale 0.4 --opacity 0.5
Run 0 composite out/a.png $badge out/c3.png --at 40,50 --rotate 90 --scale 0.4 --opacity 0.5 --threads 1
Same out/c2.png out/c3.png
Run 0 composite out/inks.jpg $badge out/c.jpg
Says "raster: $badge: note: colours are managed from sRGB built-in to inks"
IsPicture out/c.jpg JPEG 600 400 CMYKA8
Run 0 composite $photo out/inks.jpg out/c.jpg
IsPicture out/c.jpg JPEG 600 400 RGBA8
Run 1 composite out/a.png in/none.png out/none.png
Says "raster: in/none.png: "
Missing out/none.png

# --- profile
Run 0 profile list
Prints "sRGB built-in"
Run 0 profile show in/inks.icc
Prints "space    CMYK"
Prints "fits     CMYKA8"
Prints "curve    none"
Run 0 profile show 'sRGB built-in'
Prints "RGBA8 and RGBA16"
Run 1 profile show $photo

# --- usage
Run 2
Run 2 frobnicate
Run 2 convert $photo
Run 2 convert $photo out/a.bmp
Says "take one of jpeg (.jpg, .jpeg, .jpe, .jfif) and png (.png), or --type"
Run 2 convert $photo -
Says "standard output needs --type"
Run 2 convert $photo out/a.png --backstore out/none
Says "there is no folder 'out/none'"
Run 0 --version
Prints "raster "
Run 0 --help
Run 0 composite --help
Prints "--rotate"
Run 0 convert $photo out/s.png --stats
Says "planar"
Says "backstore"
Says "resident"
Run 0 convert $photo out/s.png --verbose
mkdir out/backstore
Run 0 resize $photo out/s.png --scale 3 --memory 1 --backstore out/backstore
[ -z "$(ls -A out/backstore)" ] || Fail "$last: leaves $(ls out/backstore)"
last="raster --version to a full device"
if [ -c /dev/full ]; then
    "$raster" --version >/dev/full 2>stderr.txt
    [ $? -eq 1 ] || Fail "$last doesn't end with 1"
    Says "standard output can't be written"
fi

# --- signals: work that takes long, ended in the middle
Run 0 resize $photo out/huge.jpg --scale "$([ -n "$slow" ] && echo 5 || echo 12)" --quality 100
EndsBySignal() { # SIGNAL CODE SECONDS ARGUMENT...
    local signal=$1 wanted=$2 delay=$3 code began ended
    shift 3
    last="raster $* ended by $signal after $delay s"
    cp out/a.png out/end.png
    began=$(date +%s%N)
    timeout --preserve-status -s "$signal" "$delay" "$raster" "$@" >stdout.txt 2>stderr.txt
    code=$?
    ended=$(date +%s%N)
    milliseconds=$(((ended - began) / 1000000 - 10#${delay/./}00))
    [ $code -eq "$wanted" ] || Fail "$last: ends with $code, not $wanted"
    Same out/end.png out/a.png
    no_leftovers
    [ -z "$(ls -A out/backstore)" ] || Fail "$last: leaves $(ls out/backstore)"
    echo "$last: ended within $milliseconds ms"
    [ $milliseconds -lt 1000 ] || [ -n "$slow" ] || Fail "$last: that takes too long"
}
for delay in 0.1 0.3 0.6 0.9; do
    EndsBySignal INT 130 $delay resize out/huge.jpg out/end.png --scale 1.3
    EndsBySignal TERM 143 $delay resize out/huge.jpg out/end.png --scale 1.3 --memory 4 --backstore out/backstore
done
EndsBySignal HUP 129 0.3 resize out/huge.jpg out/end.png --scale 1.3 --memory 4 --backstore out/backstore
EndsBySignal INT 130 0.2 thumbnail out/huge.jpg in/o*.jpg "${many[@]}" --size 3000 --out out/ended --threads 3
last="raster convert - ended while it reads"
mkfifo in/endless
exec 9<>in/endless
timeout --preserve-status -s TERM 0.3 "$raster" convert - out/end.png 2>stderr.txt <&9
[ $? -eq 143 ] || Fail "$last: doesn't end with 143"
exec 9>&-
Same out/end.png out/a.png

[ $failures -eq 0 ] || { echo "$failures failed"; exit 1; }
echo "all as it should be"
