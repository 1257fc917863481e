/// Streams that misbehave on order, and what tests of JPEG models ask again and again.
#pragma once

#include "files/ImageLimits.h"
#include "files/JPEGMaker.h"
#include "files/jpeg/JPEG.h"
#include "kernel/Abort.h"
#include "kernel/MemoryInStream.h"
#include "kernel/MemoryOutStream.h"

#include <algorithm>
#include <stdexcept>

namespace Raster {
using RGBA8JPEG = RGBA8Tuple::Apply<JPEG>;
using IA8JPEG = IA8Tuple::Apply<JPEG>;
using CMYKA8JPEG = CMYKA8Tuple::Apply<JPEG>;

struct StreamBroke : std::runtime_error {
    StreamBroke() : std::runtime_error("the stream broke") {}
};

/// Bytes in memory; may throw, or set a flag, when it is read at some place or behind it.
class TestInStream final : public Kernel::InStreamSeekable {
public:
    explicit TestInStream(JPEGBytes givenBytes) : bytes(std::move(givenBytes)) {}

    std::uint64_t Tell() const override { return position; }
    std::uint64_t GetSize() const override { return bytes.size(); }
    bool Seek(Kernel::SeekOrigin origin, std::int64_t offset) override {
        auto const from = origin == Kernel::SeekOrigin::Start     ? 0
                          : origin == Kernel::SeekOrigin::Current ? static_cast<std::int64_t>(position)
                                                                  : static_cast<std::int64_t>(bytes.size());
        position = static_cast<std::uint64_t>(
            std::clamp<std::int64_t>(from + offset, 0, static_cast<std::int64_t>(bytes.size())));
        return true;
    }

    std::uint64_t throwAt = ~std::uint64_t(0), flagAt = ~std::uint64_t(0);
    bool flag = false;
    bool throwsNumber = false; ///< nothing that derives from std::exception
    int readCount = 0;

protected:
    std::uint64_t ReadI(void * dest, std::uint64_t size) override {
        ++readCount;
        auto const count = std::min<std::uint64_t>(size, bytes.size() - position);
        if (position + count > throwAt) {
            if (throwsNumber)
                throw 7;
            throw StreamBroke();
        }
        if (position + count > flagAt)
            Kernel::RequestAbort(&flag);
        std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(position), count, static_cast<std::uint8_t *>(dest));
        position += count;
        return count;
    }

private:
    JPEGBytes const bytes;
    std::uint64_t position = 0;
};

/// Takes so many bytes; then it takes no more, or throws.
class TestOutStream final : public Kernel::OutStream {
public:
    std::uint64_t Tell() const override { return bytes.size(); }
    std::uint64_t GetSize() const override { return bytes.size(); }
    bool ForceFlush() override { return !failsToFlush; }

    JPEGBytes bytes;
    std::uint64_t room = ~std::uint64_t(0);
    bool throws = false, failsToFlush = false;

protected:
    std::uint64_t WriteI(void const * data, std::uint64_t size) override {
        auto const count = std::min(size, room - bytes.size());
        if (count < size && throws)
            throw StreamBroke();
        auto const * const first = static_cast<std::uint8_t const *>(data);
        bytes.insert(bytes.end(), first, first + count);
        return count;
    }
};

inline Kernel::Counted<Kernel::InStreamSeekable> StreamOf(JPEGBytes const & bytes) {
    return Kernel::MakeCounted<TestInStream>(bytes);
}

template<class Model>
Kernel::Counted<Model> Open(JPEGBytes const & bytes) {
    return Kernel::MakeCounted<Model>(StreamOf(bytes));
}

template<class Model>
using IdentityReader = typename Model::template ConstPixelAccessor<Safe, IdentityTransform>;

/// Every pixel, alpha included, by `Read`.
template<class Model>
JPEGBytes ReadPixels(Model const & model, bool * abort = nullptr) {
    IdentityReader<Model> reader(&model, nullptr, abort);
    JPEGBytes pixels;
    for (int y = 0; y < model.GetHeight(); ++y) {
        reader.SetToXY(0, y);
        for (int x = 0; x < model.GetWidth(); ++x, reader.Increment()) {
            typename Model::PixelType pixel;
            reader.Read(pixel);
            auto const * const first = reinterpret_cast<std::uint8_t const *>(&pixel);
            pixels.insert(pixels.end(), first, first + sizeof(pixel));
        }
    }
    return pixels;
}

/// What `ReadPixels` has to give for the codec's pixels: inverted for CMYK, and with full alpha.
inline JPEGBytes AddAlpha(JPEGAnswer const & answer, bool invertCMYK = true) {
    auto const components = static_cast<std::size_t>(answer.components);
    JPEGBytes pixels;
    for (std::size_t i = 0; i < answer.pixels.size(); ++i) {
        auto const sample = answer.pixels[i];
        pixels.push_back(components == 4 && invertCMYK ? static_cast<std::uint8_t>(255 - sample) : sample);
        if (i % components == components - 1)
            pixels.push_back(255);
    }
    return pixels;
}

/// Sets limits for the time of a test.
class LimitsForTest {
public:
    LimitsForTest() : limits(before) {}
    LimitsForTest(LimitsForTest const &) = delete;
    LimitsForTest & operator=(LimitsForTest const &) = delete;
    ~LimitsForTest() { SetImageLimits(before); }
    void Apply() { SetImageLimits(limits); }

private:
    ImageLimits const before = GetImageLimits();

public:
    ImageLimits limits;
};
}
