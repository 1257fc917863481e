/// A type of file that is made of nothing but memory: for tests of what all types share.
#pragma once

#include "files/DecodedCursor.h"
#include "files/FileModel.h"
#include "files/FileTransfer.h"
#include "files/FileWrapper.h"
#include "files/RowWriteAccessor.h"
#include "kernel/Abort.h"
#include "kernel/ScopedLock.h"
#include "transfer/SlowTransfer.h"

#include <cstring>
#include <stdexcept>
#include <thread>
#include <vector>

namespace Raster {
template<class C1, class C2 = X2, class C3 = X3, class C4 = X4, class C5 = X5>
class TestFile : public FileModel, public ModelBase<TestFile<C1, C2, C3, C4, C5>, C1, C2, C3, C4, C5> {
public:
    using Tuple = ChannelTuple<C1, C2, C3, C4, C5>;
    using PixelType = PixelOf<Tuple>;
    using Storage = typename Tuple::Storage;
    using Picture = Slow::Picture<Tuple>;
    using ConstCursor = DecodedCursor<TestFile>;
    template<std::same_as<AllChannels> Channels>
    using PixelAccessor = RowWriteAccessor<TestFile>;
    static constexpr ModelKind modelKind = ModelKind::Rows;

    /// To be read.
    explicit TestFile(Picture given, bool opaque = false) : picture(std::move(given)), isOpaque(opaque) {
        width = picture.width;
        height = picture.height;
    }
    /// To be written.
    TestFile(int w, int h) : picture(w, h), held(std::size_t(w)) {
        width = w;
        height = h;
    }
    TestFile * Clone() const { return nullptr; }
    TestFile * CloneEmpty() const { return nullptr; }

    DecodedPixels const & Decode(bool * abort) const {
        Kernel::ScopedLock const guard(lock);
        if (decodeCount++ > 0)
            return decoded;
        decoder = std::this_thread::get_id();
        if (failsToDecode) {
            SetFailure("damaged");
            return decoded;
        }
        decoded = DecodedPixels(width, height, sizeof(PixelType));
        for (int y = 0; y < height && !Kernel::IsAborted(abort); ++y) {
            std::memcpy(decoded.GetRow(y), &picture.pixels[std::size_t(y) * std::size_t(width)], decoded.GetStride());
            if (y == abortAtRow)
                Kernel::RequestAbort(abort);
        }
        return decoded;
    }
    bool IsOpaque() const { return isOpaque; }
    void Take(unsigned char const * bytes, PixelType & pixel) const { std::memcpy(&pixel, bytes, sizeof pixel); }
    void TakeRow(unsigned char const * bytes, std::size_t count, void * const * rows) const {
        for (std::size_t channel = 0; channel < Tuple::channelCount; ++channel)
            for (std::size_t i = 0; rows[channel] && i < count; ++i)
                std::memcpy(static_cast<Storage *>(rows[channel]) + i,
                            bytes + i * sizeof(PixelType) + channel * sizeof(Storage), sizeof(Storage));
    }

    void BeginEncoding() { ++beginCount; }
    void EncodeRow() {
        if (encodedRows == failAtRow)
            throw std::runtime_error("the disk is full");
        std::copy(held.begin(), held.end(), picture.pixels.begin() + encodedRows * width);
        ++encodedRows;
    }
    void FinishEncoding() { isFinished = true; }
    void AbandonEncoding() noexcept {
        isAbandoned = true;
        SetFailure("unfinished");
    }
    void Put(int x, PixelType & pixel) { held[std::size_t(x)] = pixel; }
    void PutRow(int x, std::size_t count, void const * const * rows) {
        for (std::size_t channel = 0; channel < Tuple::channelCount; ++channel)
            for (std::size_t i = 0; i < count; ++i)
                held[std::size_t(x) + i][channel] = static_cast<Storage const *>(rows[channel])[i];
    }

    Picture picture;
    bool isOpaque = false, failsToDecode = false;
    int abortAtRow = -1, failAtRow = -1;
    mutable int decodeCount = 0; // how often the pixels were asked for
    mutable std::thread::id decoder;
    int beginCount = 0, encodedRows = 0;
    bool isFinished = false, isAbandoned = false;

private:
    mutable DecodedPixels decoded;
    std::vector<PixelType> held;
};

template<class Tuple>
using TestFileOf = typename Tuple::template Apply<TestFile>;

/// Its wrapper.
class DynamicTestFile : public FileWrapper<DynamicTestFile> {
public:
    template<class Tuple>
    using TypedOf = TestFileOf<Tuple>;

    template<class Tuple>
    static Kernel::Counted<DynamicTestFile> Make(Kernel::Counted<TestFileOf<Tuple>> file) {
        auto wrapper = Kernel::MakeCounted<DynamicTestFile>();
        wrapper->SetTyped(formatOf<Tuple>, file);
        return wrapper;
    }
    using FileWrapper::SetOpenFailure;
};
}
