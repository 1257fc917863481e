"""CorpusConvert.py RASTER CORPUS FOLDER: converts every PNG and JPEG of the corpus to PNG and reads both with
GraphicsMagick, which shares nothing with the library but the codecs. The pixels have to be the same, but for the
differences that stand below."""
import array
import pathlib
import subprocess
import sys

raster, corpus, folder = sys.argv[1], pathlib.Path(sys.argv[2]), pathlib.Path(sys.argv[3])

# What the other program gets wrong or refuses, and what is refused by both.
NO_ALPHA = {"tbrn2c08.png"}  # it misses the transparent colour
DAMAGED = {"corrupt-icc-4551.jpg", "mjpeg.jpg", "partial_progressive.jpg"}  # it refuses what ends early or is torn
REFUSED = {"bomb-65500x65500.jpg", "jpeg_lossless_sel1.jpg", "jpeg_lossless_sel7.jpg", "lossless_MR4_12bit.jpg",
           "monkey12.jpg", "crash_bad_iCCP.png", "crash_badadler.png", "crash_badcrc.png"}
# Inks become colours through their profile here, and by formula there.
MANAGED = {"gen_cmyk_icc.jpg", "ycck.jpg"}
# Without one it is the same formula, rounded to 8 bits here and to 16 there: half a step.
ROUNDED = {"jpg-cmyk-1.jpg", "jpg-cmyk-2.jpg", "pil_sample_cmyk.jpg", "ycck-2112.jpg", "cmyk-sample-no-icc.jpg"}


def is_refused(name):
    return name in REFUSED or (name.startswith("x") and name.endswith(".png"))  # the suite's broken ones


def read(path):
    """Red, green, blue, alpha of 16 bits each; None if it can't be read."""
    done = subprocess.run(["gm", "convert", str(path), "-depth", "16", "-endian", "msb", "RGBA:-"], capture_output=True)
    if done.returncode != 0:
        return None
    samples = array.array("H", done.stdout)
    if sys.byteorder == "little":
        samples.byteswap()
    return samples


def find_difference(theirs, ours):
    """The largest one of colour where anything shows, and of alpha."""
    if theirs == ours:
        return 0, 0
    colour = alpha = 0
    for i in range(0, len(theirs), 4):
        alpha = max(alpha, abs(theirs[i + 3] - ours[i + 3]))
        if theirs[i + 3] or ours[i + 3]:  # colour that doesn't show isn't kept
            colour = max(colour, *(abs(theirs[i + k] - ours[i + k]) for k in range(3)))
    return colour, alpha


def check(path):
    """What is wrong, or None."""
    converted = folder / "converted.png"
    done = subprocess.run([raster, "convert", str(path), str(converted), "--quiet", "--decode-limit", "512"],
                          capture_output=True, text=True)
    if done.returncode != 0:
        return None if done.returncode == 1 and is_refused(path.name) else "isn't converted: " + done.stderr
    if is_refused(path.name):
        return "is converted"
    ours, theirs = read(converted), read(path)
    if ours is None:
        return "the other program can't read what was written"
    if theirs is None:
        return None if path.name in DAMAGED else "the other program can't read it"
    if len(ours) != len(theirs):
        return "has another size"
    if path.name in MANAGED:
        return None
    colour, alpha = find_difference(theirs, ours)
    if path.name in NO_ALPHA:
        return None if set(theirs[3::4]) == {65535} else "the other program knows its alpha now"
    if alpha or colour > (128 if path.name in ROUNDED else 0):
        return f"differs by {colour} of 65535 in colour, {alpha} in alpha"
    return None


failures = count = 0
for path in sorted(corpus.glob("png/*.png")) + sorted(corpus.glob("jpeg/*.jp*g")) + sorted(corpus.glob("photo/*.*")):
    if path.suffix not in (".png", ".jpg", ".jpeg"):
        continue
    count += 1
    problem = check(path)
    if problem:
        failures += 1
        print(f"{path.name}: {problem}")
print(f"{count} pictures, {failures} of them wrong")
sys.exit(1 if failures or count == 0 else 0)
