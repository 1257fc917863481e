// Damaged files, files that ask for too much, streams that break, and many threads on one file.
#include "files/FaultyStreams.h"
#include "files/PNGTesting.h"

#include "colour/ICCManager.h"
#include "files/ImageLimits.h"
#include "kernel/Abort.h"
#include "kernel/CRC32.h"
#include "kernel/TraceCapture.h"
#include "pixel/MemoryManager.h"
#include "pixel/PixelMemory.h"

#include <atomic>
#include <functional>
#include <limits>
#include <thread>

namespace Raster {
namespace {
using ColourPNG = PNGOf<RGBA8Tuple>;

std::uint64_t GetUsage() { return MemoryManager::Instance().GetInterleavedUsage(); }

// Decodes whatever the wrapper holds. @return whether there are pixels.
bool Decode(DynamicPNG const & png, bool * abort = nullptr) {
    return png.Dispatch([&](auto const & typed) { return !typed.Decode(abort).IsEmpty(); });
}

class Limits {
public:
    Limits() : before(GetImageLimits()) {}
    ~Limits() { SetImageLimits(before); }
    Limits(Limits const &) = delete;
    Limits & operator=(Limits const &) = delete;

    void Set(std::function<void(ImageLimits &)> const & change) const {
        auto limits = before;
        change(limits);
        SetImageLimits(limits);
    }

private:
    ImageLimits const before;
};

// A file opens and decodes exactly as far as libpng itself reads it.
void ExpectAsLibpng(FileBytes const & bytes, std::string const & name) {
    auto const answer = AskLibpng(bytes, 1 << 24);
    DynamicPNG png;
    bool const isOpen = png.CreateFromStream(StreamOver(bytes));
    ASSERT_EQ(answer.hasHeader, isOpen) << name << ": " << png.GetFailure();
    ASSERT_EQ(!isOpen, png.HasFailed()) << name;
    bool const hasPixels = Decode(png);
    ASSERT_EQ(answer.hasPixels, hasPixels) << name << ": " << png.GetFailure();
    if (hasPixels)
        ExpectPixels(answer, png, name);
    ASSERT_EQ(!hasPixels, png.HasFailed()) << name;
    ASSERT_EQ(hasPixels, png.GetFailure().empty()) << name;
}

TEST(PNGDamage, CutAtEveryByte) {
    for (auto recipe : MakeEveryKind(9, 7))
        for (bool const isInterlaced : {false, true}) {
            recipe.isInterlaced = isInterlaced;
            recipe.compressionBuffer = 20;
            if (recipe.colourType == PNG_COLOR_TYPE_PALETTE)
                recipe.paletteAlpha = {1, 2};
            auto const bytes = MakePNG(recipe);
            for (std::size_t size = 0; size < bytes.size(); ++size)
                ExpectAsLibpng({bytes.begin(), bytes.begin() + std::ptrdiff_t(size)},
                               "type " + std::to_string(recipe.colourType) + ", depth " + std::to_string(recipe.depth) +
                                   ", cut at " + std::to_string(size));
        }
}

TEST(PNGDamage, EveryByteChanged) {
    PNGRecipe recipe;
    recipe.colourType = PNG_COLOR_TYPE_PALETTE;
    recipe.depth = 4;
    recipe.palette = MakePalette(16);
    recipe.paletteAlpha = {0};
    recipe.width = recipe.height = 9;
    recipe.pixelsPerUnitX = recipe.pixelsPerUnitY = 3000;
    recipe.hasText = true;
    auto const bytes = MakePNG(recipe);
    for (std::size_t at = 0; at < bytes.size(); ++at)
        for (int const change : {1, 0x20, 0x80, 0xFF}) {
            auto damaged = bytes;
            damaged[at] = static_cast<std::uint8_t>(damaged[at] ^ change);
            ExpectAsLibpng(damaged, "byte " + std::to_string(at) + ", change " + std::to_string(change));
        }
}

TEST(PNGDamage, AFailedDecodeLeavesNoBlock) {
    auto const before = GetUsage();
    PNGRecipe recipe;
    recipe.width = recipe.height = 50;
    auto bytes = MakePNG(recipe);
    bytes.resize(bytes.size() / 2);
    DynamicPNG png;
    ASSERT_TRUE(png.CreateFromStream(StreamOver(bytes)));
    EXPECT_FALSE(png.HasFailed());
    auto * const model = png.GetTyped<RGBA8Tuple>();
    Reader<ColourPNG> reader(model);
    EXPECT_TRUE(reader.GetSafeRect().IsEmpty());
    ColourPNG::PixelType pixel = {1, 1, 1, 1};
    reader.SetToXY(3, 3);
    reader.Read(pixel);
    EXPECT_EQ(ColourPNG::PixelType{}, pixel);
    EXPECT_EQ(before, GetUsage());
    EXPECT_TRUE(model->HasFailed());
    EXPECT_TRUE(model->GetFailure().starts_with("PNG: ")) << model->GetFailure();
    EXPECT_EQ(50, model->GetWidth()) << "the header was sound";
}

TEST(PNGDamage, DecodingIsTriedOnce) {
    PNGRecipe recipe;
    recipe.width = recipe.height = 50;
    auto const bytes = MakePNG(recipe);
    auto const stream = Kernel::MakeCounted<FaultyInStream>(bytes, 0xFFFFFF, Fault::Short);
    ColourPNG const png{InStreamCounted(stream)};
    stream->limit = stream->readBytes + bytes.size() / 2;
    EXPECT_TRUE(png.Decode(nullptr).IsEmpty());
    auto const readBytes = stream->readBytes;
    stream->limit = 0xFFFFFF;
    EXPECT_TRUE(png.Decode(nullptr).IsEmpty());
    EXPECT_EQ(readBytes, stream->readBytes);
    EXPECT_TRUE(png.HasFailed());
}

TEST(PNGDamage, WhatTheStreamThrowsComesThrough) {
    PNGRecipe recipe;
    recipe.width = recipe.height = 20;
    auto const bytes = MakePNG(recipe);
    auto const whole = Kernel::MakeCounted<FaultyInStream>(bytes, 0xFFFFFF, Fault::Throw);
    DynamicPNG opened;
    ASSERT_TRUE(opened.CreateFromStream(whole));
    auto const headerBytes = whole->readBytes;
    ASSERT_TRUE(Decode(opened));
    auto const allBytes = whole->readBytes;
    for (std::uint64_t limit = 0; limit < allBytes; ++limit) {
        auto const stream = Kernel::MakeCounted<FaultyInStream>(bytes, limit, Fault::Throw);
        DynamicPNG png;
        if (limit < headerBytes) {
            EXPECT_THROW(png.CreateFromStream(stream), StreamFault) << limit;
            EXPECT_EQ(NoFormat, png.GetFormat());
            continue;
        }
        ASSERT_TRUE(png.CreateFromStream(stream)) << limit;
        EXPECT_THROW(Decode(png), StreamFault) << limit;
        EXPECT_TRUE(png.HasFailed());
        EXPECT_EQ("the stream broke", png.GetFailure());
        EXPECT_FALSE(Decode(png)) << "and only once";
    }
}

TEST(PNGDamage, AStreamThatCannotBeReadAgainFails) {
    auto const bytes = MakePNG(PNGRecipe());
    auto const stream = Kernel::MakeCounted<FaultyInStream>(bytes, 0xFFFFFF, Fault::Short);
    stream->refusesSeek = true;
    DynamicPNG png;
    EXPECT_FALSE(png.CreateFromStream(stream));
    stream->refusesSeek = false;
    ASSERT_TRUE(stream->RewindInStream());
    ASSERT_TRUE(png.CreateFromStream(stream));
    stream->refusesSeek = true;
    EXPECT_FALSE(Decode(png));
    EXPECT_TRUE(png.HasFailed());
}

TEST(PNGDamage, AFileThatChangedSinceItWasOpenedFails) {
    auto const original = MakePNG(PNGRecipe());
    for (int const change : {0, 1, 2, 3}) {
        PNGRecipe recipe;
        recipe.width += change == 0;
        recipe.height += change == 1;
        recipe.colourType = change == 2 ? PNG_COLOR_TYPE_RGB_ALPHA : PNG_COLOR_TYPE_RGB;
        recipe.depth = change == 3 ? 16 : 8;
        auto const other = MakePNG(recipe);
        FileBytes bytes(std::max(original.size(), other.size()));
        std::ranges::copy(original, bytes.begin());
        ColourPNG const png(StreamOver(bytes));
        std::ranges::copy(other, bytes.begin());
        EXPECT_TRUE(png.Decode(nullptr).IsEmpty()) << change;
        EXPECT_TRUE(png.HasFailed()) << change;
    }
}

// Sets the flag once that many bytes were read.
class AbortingInStream : public Kernel::MemoryInStream {
public:
    AbortingInStream(FileBytes const & bytes, bool * newAbort)
        : MemoryInStream(bytes.data(), bytes.size()), abort(newAbort) {}
    std::uint64_t abortAt = std::numeric_limits<std::uint64_t>::max();

protected:
    std::uint64_t ReadI(void * dest, std::uint64_t byteCount) override {
        auto const got = MemoryInStream::ReadI(dest, byteCount);
        if (Tell() >= abortAt)
            Kernel::RequestAbort(abort);
        return got;
    }

private:
    bool * const abort;
};

TEST(PNGDamage, AfterAnAbortTheRowsReadStayAndTheRestIsZero) {
    for (bool const isInterlaced : {false, true}) {
        PNGRecipe recipe;
        recipe.width = 100, recipe.height = 100;
        recipe.isInterlaced = isInterlaced;
        recipe.compressionBuffer = 100;
        auto const bytes = MakePNG(recipe);
        auto const answer = AskLibpng(bytes);
        bool abort = false;
        auto const stream = Kernel::MakeCounted<AbortingInStream>(bytes, &abort);
        ColourPNG const png{InStreamCounted(stream)};
        stream->abortAt = bytes.size() / 2;
        auto const & pixels = png.Decode(&abort);
        ASSERT_TRUE(abort);
        ASSERT_FALSE(pixels.IsEmpty());
        EXPECT_FALSE(png.HasFailed());
        int sameRows = 0, emptyRows = 0;
        for (int y = 0; y < 100; ++y) {
            std::vector<unsigned char> const row(pixels.GetRow(y), pixels.GetRow(y) + pixels.GetStride());
            auto const * const expected = answer.pixels.data() + std::size_t(y) * answer.rowBytes;
            sameRows += std::equal(row.begin(), row.end(), expected);
            emptyRows += std::ranges::count(row, 0) == static_cast<std::ptrdiff_t>(row.size());
            for (std::size_t i = 0; i < row.size(); ++i)
                ASSERT_TRUE(row[i] == expected[i] || row[i] == 0);
        }
        if (!isInterlaced) {
            EXPECT_EQ(100, sameRows + emptyRows);
            EXPECT_NEAR(50, sameRows, 5);
        }
        EXPECT_EQ(&pixels, &png.Decode(nullptr)) << "it counts as decoded";
        EXPECT_EQ(0, png.Decode(nullptr).GetRow(99)[299]);
    }
}

TEST(PNGDamage, AFlagThatIsSetFromTheStartGivesZeros) {
    auto const bytes = MakePNG(PNGRecipe());
    ColourPNG const png(StreamOver(bytes));
    bool abort = true;
    EXPECT_EQ(0, png.Decode(&abort).GetRow(0)[0]);
    EXPECT_EQ(0, png.Decode(nullptr).GetRow(0)[0]);
    EXPECT_FALSE(png.HasFailed());
}

TEST(PNGDamage, LimitsOnTheSizeRefuseTheHeaderAndSayWhich) {
    Limits const limits;
    PNGRecipe recipe;
    recipe.width = 100, recipe.height = 10;
    auto const bytes = MakePNG(recipe);
    struct Case {
        std::function<void(ImageLimits &)> change;
        bool isOpen;
        char const * named;
    };
    for (auto const & [change, isOpen, named] :
         {Case{[](auto & l) { l.largestSide = 100; }, true, ""},
          {[](auto & l) { l.largestSide = 99; }, false, "largestSide"},
          {[](auto & l) { l.largestPixelCount = 1000; }, true, ""},
          {[](auto & l) { l.largestPixelCount = 999; }, false, "largestPixelCount"}}) {
        limits.Set(change);
        DynamicPNG png;
        EXPECT_EQ(isOpen, png.CreateFromStream(StreamOver(bytes)));
        EXPECT_EQ(isOpen ? RGBA8 : NoFormat, png.GetFormat());
        EXPECT_NE(std::string::npos, png.GetFailure().find(named)) << png.GetFailure();
    }
}

TEST(PNGDamage, TheLimitOnDecodedBytesRefusesThePixelsOnly) {
    Limits const limits;
    PNGRecipe recipe;
    recipe.width = 100, recipe.height = 10;
    auto const bytes = MakePNG(recipe);
    for (std::uint64_t const allowed : {2999, 3000}) {
        limits.Set([&](auto & l) { l.largestDecodedBytes = allowed; });
        DynamicPNG png;
        ASSERT_TRUE(png.CreateFromStream(StreamOver(bytes)));
        EXPECT_EQ(100, png.GetWidth());
        EXPECT_EQ(allowed == 3000, Decode(png));
        EXPECT_EQ(allowed == 2999, png.HasFailed());
        if (allowed == 2999) {
            EXPECT_NE(std::string::npos, png.GetFailure().find("largestDecodedBytes: 3000 needed, 2999 allowed"))
                << png.GetFailure();
        }
    }
}

FileBytes MakeHugeHeader(std::uint32_t width, std::uint32_t height) {
    auto bytes = MakePNG(PNGRecipe());
    for (int i = 0; i < 4; ++i) {
        bytes[16 + std::size_t(i)] = static_cast<std::uint8_t>(width >> (24 - 8 * i));
        bytes[20 + std::size_t(i)] = static_cast<std::uint8_t>(height >> (24 - 8 * i));
    }
    auto const checksum = Kernel::CRC32::Instance().DataCRC32(&bytes[12], 17);
    for (int i = 0; i < 4; ++i)
        bytes[29 + std::size_t(i)] = static_cast<std::uint8_t>(checksum >> (24 - 8 * i));
    return bytes;
}

TEST(PNGDamage, AHugePictureTakesNoMemory) {
    Limits const limits;
    limits.Set([](auto & l) { l.largestDecodedBytes = std::uint64_t(512) << 20; });
    auto const before = GetUsage();
    for (auto const & [width, height] : {std::pair(60000u, 60000u),
                                         {1u << 20, 1u << 14},
                                         {0x7FFFFFFFu, 0x7FFFFFFFu},
                                         {0x7FFFFFFFu, 1u},
                                         {1u, 0x7FFFFFFFu}}) {
        auto const bytes = MakeHugeHeader(width, height);
        DynamicPNG png;
        bool const isOpen = png.CreateFromStream(StreamOver(bytes));
        EXPECT_EQ(width <= 1 << 20 && height <= 1 << 20, isOpen);
        EXPECT_FALSE(Decode(png));
        EXPECT_TRUE(png.HasFailed());
        EXPECT_NE(std::string::npos, png.GetFailure().find("over the limit")) << png.GetFailure();
        EXPECT_EQ(before, GetUsage());
    }
}

TEST(PNGDamage, AProfileOverTheLimitIsDropped) {
    Limits const limits;
    PNGRecipe recipe;
    auto const profile = ICCManager::GetInstance().GetDefaultProfile(ColourSpaceRGB)->GetRawData();
    recipe.profile.assign(profile.begin(), profile.end());
    auto const bytes = MakePNG(recipe);
    limits.Set([&](auto & l) { l.largestProfileBytes = profile.size() - 1; });
    DynamicPNG png;
    ASSERT_TRUE(png.CreateFromStream(StreamOver(bytes)));
    EXPECT_FALSE(png.GetProfile());
    EXPECT_FALSE(png.IsProfileFallback());
    EXPECT_TRUE(Decode(png));
}

TEST(PNGDamage, WithoutMemoryThePictureFailsAndNothingLeaks) {
    auto const bytes = MakePNG(PNGRecipe());
    auto const before = GetUsage();
    ColourPNG const png(StreamOver(bytes));
    PixelMemory::FailAllocation(1);
    EXPECT_TRUE(png.Decode(nullptr).IsEmpty());
    PixelMemory::FailAllocation(0);
    EXPECT_TRUE(png.HasFailed());
    EXPECT_NE(std::string::npos, png.GetFailure().find("memory")) << png.GetFailure();
    EXPECT_EQ(before, GetUsage());
}

TEST(PNGDamage, TheBlockIsAccountedWhileTheModelLives) {
    PNGRecipe recipe;
    recipe.width = 100, recipe.height = 10;
    auto const bytes = MakePNG(recipe);
    auto const before = GetUsage();
    {
        ColourPNG const png(StreamOver(bytes));
        EXPECT_EQ(before, GetUsage()) << "only the header was read";
        png.Decode(nullptr);
        EXPECT_EQ(before + 3000, GetUsage());
    }
    EXPECT_EQ(before, GetUsage());
}

TEST(PNGDamage, TheCodecIsSilentAndItsWarningsAreTraced) {
    TraceCapture trace(TraceCapture::Under::TheLockOfAModel);
    PNGRecipe recipe;
    recipe.pixelsPerUnitX = recipe.pixelsPerUnitY = 3000;
    auto bytes = MakePNG(recipe);
    bytes[8 + 25 + 8] ^= 1; // pHYs, whose checksum is wrong now
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    DynamicPNG png;
    EXPECT_TRUE(png.CreateFromStream(StreamOver(bytes)));
    EXPECT_TRUE(Decode(png));
    bytes.resize(50);
    EXPECT_FALSE(png.CreateFromStream(StreamOver(bytes)));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    auto const messages = trace.Take();
    auto const isTraced = [&](char const * text) {
        return std::ranges::any_of(messages, [&](auto const & m) { return m.find(text) != std::string::npos; });
    };
    EXPECT_TRUE(isTraced("pHYs")) << "the warning";
    EXPECT_TRUE(isTraced("ends early")) << "the failure";
}

TEST(PNGDamage, ManyThreadsDecodeOnce) {
    PNGRecipe recipe;
    recipe.width = recipe.height = 200;
    auto const bytes = MakePNG(recipe);
    auto const answer = AskLibpng(bytes);
    for (int round = 0; round < 10; ++round) {
        auto const stream = Kernel::MakeCounted<FaultyInStream>(bytes, 0xFFFFFFFF, Fault::Short);
        ColourPNG const png{InStreamCounted(stream)};
        auto const headerBytes = stream->readBytes;
        std::atomic<int> wrong = 0;
        std::vector<std::thread> threads;
        for (int i = 0; i < 8; ++i)
            threads.emplace_back([&, i] {
                Reader<ColourPNG> reader(&png);
                for (int y = i; y < 200; y += 8) {
                    reader.SetToXY(0, y);
                    for (int x = 0; x < 200; ++x, reader.Increment()) {
                        ColourPNG::PixelType pixel;
                        reader.Read(pixel);
                        wrong += pixel[1] != ExpectedSample(answer, x, y, 1);
                    }
                }
            });
        for (auto & thread : threads)
            thread.join();
        EXPECT_EQ(0, wrong);
        EXPECT_LT(stream->readBytes - headerBytes, 2 * bytes.size()) << "decoded more than once";
    }
}

TEST(PNGDamage, SizesThatOverflowAreNoProblemOfTheLimits) {
    Limits const limits;
    auto const none = std::numeric_limits<std::uint64_t>::max();
    limits.Set([&](auto & l) { l.largestSide = l.largestPixelCount = l.largestDecodedBytes = none; });
    auto const bytes = MakeHugeHeader(0x7FFFFFFF, 0x7FFFFFFF);
    auto const before = GetUsage();
    DynamicPNG png;
    png.CreateFromStream(StreamOver(bytes));
    EXPECT_FALSE(Decode(png));
    EXPECT_TRUE(png.HasFailed());
    EXPECT_EQ(before, GetUsage());
}
}
}
