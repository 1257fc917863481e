#include "kernel/CRC32.h"
#include "kernel/HashAccumulator.h"
#include "kernel/MD5.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

using namespace Kernel;

namespace {
std::string Digest(std::vector<std::string> const & pieces) {
    MD5_CTX context;
    unsigned char digest[18];
    digest[16] = digest[17] = 0xa5; // guards
    MD5_Init(&context);
    for (auto const & piece : pieces)
        MD5_Update(&context, piece.data(), piece.size());
    MD5_Final(digest, &context);
    EXPECT_EQ(digest[16], 0xa5);
    std::string text;
    for (int i = 0; i < 16; ++i) {
        char hex[3];
        std::snprintf(hex, sizeof hex, "%02x", digest[i]);
        text += hex;
    }
    return text;
}

std::uint32_t SlowCRC(std::vector<std::uint8_t> const & bytes) {
    std::uint32_t crc = 0xffffffff;
    for (auto const byte : bytes) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit)
            crc = crc >> 1 ^ (crc & 1 ? 0xedb88320u : 0);
    }
    return ~crc;
}
}

TEST(CRC32, EqualsTheBitwiseOneForAllSmallSizes) {
    std::vector<std::uint8_t> bytes;
    for (int size = 0; size < 600; ++size) {
        EXPECT_EQ(CRC32::Instance().DataCRC32(bytes.data(), bytes.size()), SlowCRC(bytes)) << size << " bytes";
        bytes.push_back(static_cast<std::uint8_t>(size * 37 + 11));
    }
}

TEST(CRC32, GivesThePublishedCheckValue) { EXPECT_EQ(CRC32::Instance().DataCRC32("123456789", 9), 0xcbf43926u); }

TEST(CRC32, ContinuesWhereItStopped) {
    auto const & crc = CRC32::Instance();
    EXPECT_EQ(crc.DataCRC32("6789", 4, crc.DataCRC32("12345", 5)), 0xcbf43926u);
    EXPECT_EQ(crc.DataCRC32(nullptr, 0, 0x1234u), 0x1234u) << "no bytes change nothing";
}

TEST(MD5, GivesThePublishedDigests) {
    EXPECT_EQ(Digest({}), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(Digest({"abc"}), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(Digest({"message digest"}), "f96b697d7cb7938d525a2f31aaf161d0");
}

TEST(MD5, TakesItsBytesInPieces) { EXPECT_EQ(Digest({"mess", "", "age dig", "est"}), Digest({"message digest"})); }

TEST(MD5, StartsAfreshOnAUsedContext) {
    MD5_CTX context;
    unsigned char first[16], second[16];
    MD5_Init(&context);
    MD5_Update(&context, "abc", 3);
    MD5_Final(first, &context);
    MD5_Init(&context);
    MD5_Update(&context, "abc", 3);
    MD5_Final(second, &context);
    EXPECT_TRUE(std::equal(first, first + 16, second));
}

TEST(HashAccumulator, DependsOnOrderAndBoundaries) {
    auto const hash = [](std::vector<std::string_view> const & pieces) {
        HashAccumulator accumulator;
        for (auto const piece : pieces)
            accumulator.AddToHash(piece);
        return accumulator.GetHash();
    };
    EXPECT_EQ(hash({"ab", "c"}), hash({"ab", "c"}));
    EXPECT_NE(hash({"ab", "c"}), hash({"a", "bc"}));
    EXPECT_NE(hash({"a", "b"}), hash({"b", "a"}));
    EXPECT_NE(hash({"a"}), hash({"a", ""}));
}

TEST(HashAccumulator, TakesNumbersByValue) {
    auto const hash = [](auto value) {
        HashAccumulator accumulator;
        accumulator.AddToHash(value);
        return accumulator.GetHash();
    };
    EXPECT_EQ(hash(7), hash(std::uint8_t(7)));
    EXPECT_NE(hash(7), hash(8));
    EXPECT_EQ(hash(0.0), hash(-0.0));
    EXPECT_NE(hash(1.0), hash(2.0));
}
