"""XXH3 with seed 0 and its built-in secret, of 64 and 128 bits: the checksums of document files.

Written so that it can be read next to a description of the hash; only the loop over long inputs is made to be fast, in
that whole blocks go through C code of the interpreter.
"""
import operator
import struct

MASK32 = 0xFFFFFFFF
MASK64 = 0xFFFFFFFFFFFFFFFF
PRIME32_1, PRIME32_2, PRIME32_3 = 0x9E3779B1, 0x85EBCA77, 0xC2B2AE3D
PRIME64_1, PRIME64_2, PRIME64_3 = 0x9E3779B185EBCA87, 0xC2B2AE3D27D4EB4F, 0x165667B19E3779F9
PRIME64_4, PRIME64_5 = 0x85EBCA77C2B2AE63, 0x27D4EB2F165667C5
PRIME_MX1, PRIME_MX2 = 0x165667919E3779F9, 0x9FB21C651E98DF25

SECRET = bytes.fromhex(
    "b8fe6c3923a44bbe7c01812cf721ad1cded46de9839097db7240a4a4b7b3671f"
    "cb79e64eccc0e578825ad07dccff7221b8084674f743248ee03590e6813a264c"
    "3c2852bb91c300cb88d0658b1b532ea371644897a20df94e3819ef46a9deacd8"
    "a8fa763fe39c343ff9dcbbc7c70b4f1d8a51e04bcdb45931c89f7ec9d9787364"
    "eac5ac8334d3ebc3c581a0fffa1363eb170ddd51b7f0da49d316552629d4689e"
    "2b16be587d47a1fc8ff8b8d17ad031ce45cb3a8f95160428afd7fbcabb4b407e")

STRIPE_BYTES, LANES = 64, 8
BLOCK_STRIPES = (len(SECRET) - STRIPE_BYTES) // 8
BLOCK_BYTES = BLOCK_STRIPES * STRIPE_BYTES
INITIAL = (PRIME32_3, PRIME64_1, PRIME64_2, PRIME64_3, PRIME64_4, PRIME32_2, PRIME64_5, PRIME32_1)
# The keys of all stripes of a block side by side, as one number.
BLOCK_KEY = int.from_bytes(b"".join(SECRET[8 * i:8 * i + STRIPE_BYTES] for i in range(BLOCK_STRIPES)), "little")


def read32(data, at):
    return int.from_bytes(data[at:at + 4], "little")


def read64(data, at):
    return int.from_bytes(data[at:at + 8], "little")


def swap32(value):
    return int.from_bytes(value.to_bytes(4, "little"), "big")


def swap64(value):
    return int.from_bytes(value.to_bytes(8, "little"), "big")


def rotate(value, count, width):
    return (value << count | value >> (width - count)) & ((1 << width) - 1)


def fold(a, b):
    """The halves of the 128-bit product, exclusive or'd."""
    product = a * b
    return (product ^ product >> 64) & MASK64


def avalanche(value):
    value ^= value >> 37
    value = value * PRIME_MX1 & MASK64
    return value ^ value >> 32


def avalanche_short(value):
    value ^= value >> 33
    value = value * PRIME64_2 & MASK64
    value ^= value >> 29
    value = value * PRIME64_3 & MASK64
    return value ^ value >> 32


def mix16(data, at, secret_at):
    return fold(read64(data, at) ^ read64(SECRET, secret_at), read64(data, at + 8) ^ read64(SECRET, secret_at + 8))


# --- Up to 240 bytes, where each length has a formula of its own.

def short64(data):
    size = len(data)
    if size == 0:
        return avalanche_short(read64(SECRET, 56) ^ read64(SECRET, 64))
    if size <= 3:
        combined = data[0] << 16 | data[size >> 1] << 24 | data[-1] | size << 8
        return avalanche_short(combined ^ read32(SECRET, 0) ^ read32(SECRET, 4))
    if size <= 8:
        value = (read32(data, size - 4) + (read32(data, 0) << 32)) ^ read64(SECRET, 8) ^ read64(SECRET, 16)
        value ^= rotate(value, 49, 64) ^ rotate(value, 24, 64)
        value = value * PRIME_MX2 & MASK64
        value ^= (value >> 35) + size
        value = value * PRIME_MX2 & MASK64
        return value ^ value >> 28
    if size <= 16:
        low = read64(data, 0) ^ read64(SECRET, 24) ^ read64(SECRET, 32)
        high = read64(data, size - 8) ^ read64(SECRET, 40) ^ read64(SECRET, 48)
        return avalanche((size + swap64(low) + high + fold(low, high)) & MASK64)
    total = size * PRIME64_1
    if size <= 128:
        for i in range((size - 1) // 32 + 1):
            total += mix16(data, 16 * i, 32 * i) + mix16(data, size - 16 * i - 16, 32 * i + 16)
        return avalanche(total & MASK64)
    total = avalanche((total + sum(mix16(data, 16 * i, 16 * i) for i in range(8))) & MASK64)
    total += sum(mix16(data, 16 * i, 16 * (i - 8) + 3) for i in range(8, size // 16))
    return avalanche((total + mix16(data, size - 16, 136 - 17)) & MASK64)


def mix32(low, high, data, first, second, secret_at):
    low = (low + mix16(data, first, secret_at)) & MASK64
    low ^= (read64(data, second) + read64(data, second + 8)) & MASK64
    high = (high + mix16(data, second, secret_at + 16)) & MASK64
    high ^= (read64(data, first) + read64(data, first + 8)) & MASK64
    return low, high


def short128(data):
    size = len(data)
    if size == 0:
        return (avalanche_short(read64(SECRET, 64) ^ read64(SECRET, 72)),
                avalanche_short(read64(SECRET, 80) ^ read64(SECRET, 88)))
    if size <= 3:
        combined = data[0] << 16 | data[size >> 1] << 24 | data[-1] | size << 8
        turned = rotate(swap32(combined), 13, 32)
        return (avalanche_short(combined ^ read32(SECRET, 0) ^ read32(SECRET, 4)),
                avalanche_short(turned ^ read32(SECRET, 8) ^ read32(SECRET, 12)))
    if size <= 8:
        value = (read32(data, 0) + (read32(data, size - 4) << 32)) ^ read64(SECRET, 16) ^ read64(SECRET, 24)
        product = value * ((PRIME64_1 + (size << 2)) & MASK64)
        low, high = product & MASK64, product >> 64
        high = (high + (low << 1)) & MASK64
        low ^= high >> 3
        low ^= low >> 35
        low = low * PRIME_MX2 & MASK64
        return low ^ low >> 28, avalanche(high)
    if size <= 16:
        first, last = read64(data, 0), read64(data, size - 8)
        product = (first ^ last ^ read64(SECRET, 32) ^ read64(SECRET, 40)) * PRIME64_1
        low, high = product & MASK64, product >> 64
        low = (low + ((size - 1) << 54)) & MASK64
        last ^= read64(SECRET, 48) ^ read64(SECRET, 56)
        high = (high + last + (last & MASK32) * (PRIME32_2 - 1)) & MASK64
        low ^= swap64(high)
        product = low * PRIME64_2
        return avalanche(product & MASK64), avalanche(((product >> 64) + high * PRIME64_2) & MASK64)
    low, high = size * PRIME64_1 & MASK64, 0
    if size <= 128:
        for i in reversed(range((size - 1) // 32 + 1)):
            low, high = mix32(low, high, data, 16 * i, size - 16 * i - 16, 32 * i)
    else:
        for i in range(4):
            low, high = mix32(low, high, data, 32 * i, 32 * i + 16, 32 * i)
        low, high = avalanche(low), avalanche(high)
        for i in range(4, size // 32):
            low, high = mix32(low, high, data, 32 * i, 32 * i + 16, 3 + 32 * (i - 4))
        low, high = mix32(low, high, data, size - 16, size - 32, 136 - 17 - 16)
    last = low * PRIME64_1 + high * PRIME64_4 + size * PRIME64_2
    return avalanche((low + high) & MASK64), -avalanche(last & MASK64) & MASK64


# --- More than 240 bytes: eight sums over stripes of 64 bytes, stirred after each block of 16 stripes.

def add_stripes(sums, data, key, count):
    """Adds `count` stripes; `key` has their keys side by side. The sums may grow beyond 64 bits."""
    halves = struct.unpack("<%dI" % (2 * LANES * count),
                           (int.from_bytes(data, "little") ^ key).to_bytes(STRIPE_BYTES * count, "little"))
    products = list(map(operator.mul, halves[::2], halves[1::2]))
    values = struct.unpack("<%dQ" % (LANES * count), data)
    for lane in range(LANES):
        sums[lane] += sum(products[lane::LANES]) + sum(values[lane ^ 1::LANES])


def sum_up(data):
    sums = list(INITIAL)
    size = len(data)
    blocks = (size - 1) // BLOCK_BYTES
    stir = struct.unpack_from("<8Q", SECRET, len(SECRET) - STRIPE_BYTES)
    for block in range(blocks):
        add_stripes(sums, data[block * BLOCK_BYTES:(block + 1) * BLOCK_BYTES], BLOCK_KEY, BLOCK_STRIPES)
        for lane in range(LANES):
            value = sums[lane] & MASK64
            sums[lane] = (value ^ value >> 47 ^ stir[lane]) * PRIME32_1 & MASK64
    rest = blocks * BLOCK_BYTES
    stripes = (size - 1 - rest) // STRIPE_BYTES
    if stripes:
        length = stripes * STRIPE_BYTES
        add_stripes(sums, data[rest:rest + length], BLOCK_KEY & ((1 << 8 * length) - 1), stripes)
    # The last 64 bytes once more, or what is left, with a key of their own.
    add_stripes(sums, data[size - STRIPE_BYTES:], int.from_bytes(SECRET[121:121 + STRIPE_BYTES], "little"), 1)
    return [value & MASK64 for value in sums]


def merge(sums, secret_at, start):
    for i in range(4):
        start += fold(sums[2 * i] ^ read64(SECRET, secret_at + 16 * i),
                      sums[2 * i + 1] ^ read64(SECRET, secret_at + 16 * i + 8))
    return avalanche(start & MASK64)


def hash64(data):
    """The 64-bit hash of bytes."""
    if len(data) <= 240:
        return short64(data)
    return merge(sum_up(data), 11, len(data) * PRIME64_1)


def hash128(data):
    """The 128-bit hash of bytes: its lower half and its upper half."""
    if len(data) <= 240:
        return short128(data)
    sums = sum_up(data)
    return (merge(sums, 11, len(data) * PRIME64_1),
            merge(sums, len(SECRET) - STRIPE_BYTES - 11, ~(len(data) * PRIME64_2) & MASK64))
