/// What the targets of file formats share: opening bytes, reading pixels, writing them and reading them again.
#pragma once

#include "FuzzTarget.h"

#include "files/ExportOptions.h"
#include "kernel/MemoryInStream.h"
#include "kernel/MemoryOutStream.h"
#include "pixel/Accessor.h"
#include "pixel/Extend.h"
#include "pixel/Transform.h"

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <vector>

namespace Fuzz {
constexpr std::uint64_t mostPixels = 1 << 16; // that are read in a run, for speed

template<class Typed>
using PixelsOf = std::vector<typename Typed::PixelType>;

inline Kernel::Counted<Kernel::InStreamSeekable> MakeStream(std::uint8_t const * data, std::size_t size) {
    return Kernel::Counted<Kernel::InStreamSeekable>(Kernel::MakeCounted<Kernel::MemoryInStream>(data, size));
}

template<class Typed>
std::uint64_t GetPixelCount(Typed const & file) {
    return std::uint64_t(file.GetWidth()) * std::uint64_t(file.GetHeight());
}

template<class Typed>
PixelsOf<Typed> ReadPixels(Typed const & file) {
    PixelsOf<Typed> pixels;
    typename Typed::template ConstPixelAccessor<Raster::Safe, Raster::IdentityTransform> accessor(&file);
    auto const rect = accessor.GetSafeRect();
    for (int y = rect.top; y < rect.bottom; ++y) {
        accessor.SetToXY(0, y);
        for (int x = rect.left; x < rect.right; ++x, accessor.Increment())
            accessor.Read(pixels.emplace_back());
    }
    return pixels;
}

/// @return those of a file that decodes: all, or none of one that fails.
template<class Typed>
PixelsOf<Typed> ReadAllOrNone(Typed const & file) {
    auto pixels = ReadPixels(file);
    Expect(pixels.size() == (file.HasFailed() ? 0 : GetPixelCount(file)));
    return pixels;
}

/// Writes a file of the same size and calls `check` with what opens again.
/// @param prepare  called with the file before its pixels are written.
template<class Typed, class Prepare, class Check>
void WriteAndOpenAgain(Typed const & file, PixelsOf<Typed> pixels, Raster::ExportOptions const & options,
                       Prepare && prepare, Check && check) {
    auto const stream = Kernel::MakeCounted<Kernel::MemoryOutStream>();
    Typed written(Kernel::Counted<Kernel::OutStream>(stream), file.GetWidth(), file.GetHeight(), options);
    prepare(written);
    {
        typename Typed::template PixelAccessor<Raster::AllChannels> accessor(&written);
        auto pixel = pixels.begin();
        for (int y = 0; y < file.GetHeight(); ++y) {
            accessor.SetToXY(0, y);
            for (int x = 0; x < file.GetWidth(); ++x, accessor.Increment())
                accessor.Write(*pixel++);
        }
    }
    check(Typed(MakeStream(stream->GetData(), stream->GetSize())));
}

/// Opens bytes as a file of one format and calls `use` with it as the kind of file that it is.
template<class Dynamic, class Use>
void OpenFile(Dynamic & file, std::uint8_t const * data, std::size_t size, Use && use) {
    file.CreateFromStream(MakeStream(data, size));
    Expect((file.GetFormat() == Raster::NoFormat) == file.HasFailed());
    file.Dispatch([&](auto const & typed) {
        use(typed);
        return true;
    });
}
}
