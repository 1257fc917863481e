// How the bytes of an image file become the pixels of bitmaps, and how a document keeps them.
#include "kernel/Abort.h"
#include "kernel/DelayLoadHolder.h"
#include "kernel/InSerialiserFile.h"
#include "kernel/OutSerialiserFile.h"
#include "kernel/ScopedLock.h"
#include "kernel/Trace.h"
#include "storage/CompressedRasterData.h"

#include <atomic>
#include <span>
#include <stdexcept>

namespace Raster {
namespace {
std::atomic<CompressedDataCodec const *> codecInPlace{nullptr};

constexpr Kernel::IDTag rootTag("Blck"), sizeTag("Size"), invertTag("Invr"), dataTag("Data");
constexpr unsigned short itemVersion = 1;

bool IsOfKind(DynamicBitmap const & bitmap, Format format, int width, int height) {
    return bitmap.GetFormat() == format && bitmap.GetWidth() == width && bitmap.GetHeight() == height;
}
}

CompressedDataCodec const * SetCompressedDataCodec(CompressedDataCodec const * codec) noexcept {
    return codecInPlace.exchange(codec, std::memory_order_acq_rel);
}

Kernel::FileStoreItemType const & CompressedRasterData::GetTypeFileStoreItemType() {
    static Kernel::FileStoreItemType const type(
        "Data", Kernel::ItemNesting::NotNestable, Kernel::ItemRecovery::NotRecoverable,
        [] { return Kernel::Counted<Kernel::FileStoreItem>(new CompressedRasterData); });
    return type;
}

Kernel::Consolidated<ICCProfile> CompressedRasterData::GetDecodedProfile() const {
    Kernel::ScopedLock const guard(cacheLock);
    return profile;
}

DecodeProblems CompressedRasterData::GetDecodeProblems() const {
    Kernel::ScopedLock const guard(cacheLock);
    return problems;
}

Kernel::Counted<DynamicBitmap const> CompressedRasterData::GetBitmapRepresentation(Format format, int width, int height,
                                                                                   bool * abort) const {
    {
        Kernel::ScopedLock const guard(cacheLock);
        if (bitmapRepresentation)
            return bitmapRepresentation;
    }
    auto decoded = Kernel::MakeCounted<DynamicBitmap>();
    Kernel::Consolidated<ICCProfile> decodedProfile;
    DecodeProblems found;
    auto const * const codec = codecInPlace.load(std::memory_order_acquire);
    if (size != 0 && codec) {
        codec->decode(Kernel::Counted<CompressedRasterData const>(this), *decoded, decodedProfile, found, abort);
        if (invert && !Kernel::IsAborted(abort))
            codec->invert(*decoded, abort);
        decoded->Scrub(abort);
    }
    if (decoded->GetFormat() == NoFormat) {
        decoded->Create(width, height, format, MipmapModeOnDemandDefault, HardwareCachePolicy::Default);
        if (found.failure.IsEmpty())
            found.failure = size == 0 ? "the file is empty" : "the file is of no known type";
    }
    if (Kernel::IsAborted(abort))
        return decoded;
    Kernel::ScopedLock const guard(cacheLock);
    if (!bitmapRepresentation) { // two may have decoded at once; all share the picture of the first
        bitmapRepresentation = decoded;
        profile = decodedProfile;
        problems = found;
    }
    return bitmapRepresentation;
}

void CompressedRasterData::SetPlanesIntoInternalBitmap(Format format, Kernel::Consolidated<ICCProfile> targetProfile,
                                                       void * target, int width, int height, bool * abort) const {
    auto source = GetBitmapRepresentation(format, width, height, abort);
    if (Kernel::IsAborted(abort))
        return;
    if (!IsOfKind(*source, format, width, height)) {
        auto converted =
            Kernel::MakeCounted<DynamicBitmap>(width, height, format, MipmapModeNone, HardwareCachePolicy::Default);
        auto const * const codec = codecInPlace.load(std::memory_order_acquire);
        if (codec)
            codec->convert(*converted, *source, GetDecodedProfile(), targetProfile, abort);
        source = converted;
    }
    if (Kernel::IsAborted(abort))
        return;
    VisitFormat(format, [&](auto tuple) {
        static_cast<BitmapOf<decltype(tuple)> *>(target)->CopyPlanesFrom(source->template GetTyped<decltype(tuple)>());
    });
}

bool CompressedRasterData::LoadBitmap(BitmapCore & bitmap, Kernel::DelayLoadHolder & backing, bool * abort) {
    Kernel::DelayLoadHolder::TempLoadItem const item(&backing);
    auto const * const file = item.GetItemAs<CompressedRasterData>();
    if (!file)
        return false;
    auto const format = bitmap.GetLayout().format;
    VisitFormat(format, [&](auto tuple) {
        auto & typed = static_cast<BitmapOf<decltype(tuple)> &>(bitmap);
        file->SetPlanesIntoInternalBitmap(format, bitmap.GetProfile(), &typed, bitmap.GetWidth(), bitmap.GetHeight(),
                                          abort);
    });
    return true;
}

void CompressedRasterData::Save(Kernel::OutStream & stream, Kernel::FileStoreOut & store) const {
    Kernel::OutSerialiserFile serialiser(stream, store, rootTag, itemVersion);
    serialiser.SaveType(sizeTag, size);
    serialiser.SaveType(invertTag, invert);
    if (data)
        serialiser.SaveRawData(dataTag, data.get(), size);
    serialiser.Close();
}

bool CompressedRasterData::Load(Kernel::InStream & stream, Kernel::FileStore & store) {
    try {
        auto const parsed =
            Kernel::InSerialiserFile::ParseWithChecks(stream, store, /*acceptFutureVersions=*/false, itemVersion);
        std::uint64_t loadedSize = 0;
        std::span<std::uint8_t const> bytes;
        parsed->LoadType(sizeTag, loadedSize);
        parsed->LoadType(invertTag, invert);
        parsed->LoadRawData(dataTag, bytes);
        if (bytes.size() != loadedSize) {
            Kernel::Trace("The bytes of an image file in a document are %1, not %2\n", bytes.size(), loadedSize);
            return false;
        }
        CopyFrom(bytes.data(), bytes.size());
        return true;
    } catch (std::runtime_error const &) { // of a later version, or no such stream
        return false;
    }
}
}
