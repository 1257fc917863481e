// Shows the bytes of an image file that a document keeps. Those of a run are such an item of a document, behind which
// stands what the bitmap is that shows them; or, where they are no item, the file itself, whose last bytes, which no
// format looks at, tell that.
#include "DecodingLimit.h"
#include "FuzzTarget.h"
#include "Input.h"
#include "storage/NoStore.h"

#include "colour/ICCManager.h"
#include "kernel/DelayLoadHolder.h"
#include "kernel/Dispatch.h"
#include "kernel/FileStore.h"
#include "kernel/MemoryInStream.h"
#include "kernel/MemoryOutStream.h"
#include "storage/BitmapCore.h"
#include "storage/CompressedRasterData.h"

#include <algorithm>

using namespace Raster;
using Fuzz::Expect;
using Kernel::Counted;
using Kernel::MakeCounted;

namespace {
constexpr std::size_t targetBytes = 6;

struct Target {
    Format format;
    int width, height;
    bool isInverted, hasProfile;
};

Target TakeTarget(std::uint8_t const * data, std::size_t size) {
    auto const count = std::min(size, targetBytes);
    Fuzz::Input input(data + size - count, count);
    auto const format = static_cast<Format>(input.Take<std::uint8_t>() % 11);
    auto const flags = input.Take<std::uint8_t>();
    int const width = input.Take<std::uint16_t>() % 600;
    return {format, width, input.Take<std::uint16_t>() % 600, (flags & 1) != 0, (flags & 2) != 0};
}

Kernel::Consolidated<ICCProfile> GetProfile(Target const & target) {
    auto const space = target.format == CMYKA8 ? ColourSpaceCMYK : ColourSpaceRGB;
    return target.hasProfile ? ICCManager::GetInstance().GetDefaultProfile(space) : nullptr;
}

Counted<CompressedRasterData> Load(Fuzz::Bytes const & bytes) {
    auto const stream = MakeCounted<Kernel::MemoryInStream>(bytes.data(), bytes.size());
    auto data = MakeCounted<CompressedRasterData>();
    return data->Load(*stream, *MakeCounted<Kernel::EmptyFileStore>()) ? data : nullptr;
}

Fuzz::Bytes Save(CompressedRasterData const & data) {
    auto const stream = MakeCounted<Kernel::MemoryOutStream>();
    data.Save(*stream, *MakeCounted<Fuzz::NoStore>());
    return stream->TakeData();
}

bool HasPixels(DynamicBitmap const & bitmap) {
    auto const box = bitmap.GetNonZeroBoundingBox();
    return box.left < box.right && box.top < box.bottom;
}

void Show(Counted<CompressedRasterData> const & data, Target const & target) {
    auto const holder = Kernel::DelayLoadHolder::Create(CompressedRasterData::GetTypeFileStoreItemType(), data);
    DynamicBitmap bitmap(target.width, target.height, target.format, MipmapModeOnDemandDefault,
                         HardwareCachePolicy::Default);
    bitmap.SetBackingData(holder, GetProfile(target));
    bitmap.GetCore()->SetPendingBacking(holder);
    bitmap.ForceDelayLoad(nullptr);
    Expect(!bitmap.IsPendingDelayLoad());
    bool const hasPixels = HasPixels(bitmap);

    auto const picture = data->GetBitmapRepresentation(target.format, target.width, target.height, nullptr);
    Expect(picture && picture->GetFormat() != NoFormat);
    Expect(picture == data->GetBitmapRepresentation(A8, 1, 1, nullptr)); // it is kept
    auto const profile = data->GetDecodedProfile();
    Expect(!profile || profile->GetHandle());
    Expect(!hasPixels || data->GetInvert() || HasPixels(*picture));

    DynamicBitmap other(target.width / 2, target.height, RGBA8, MipmapModeNone, HardwareCachePolicy::Default);
    data->SetPlanesIntoInternalBitmap(RGBA8, nullptr, other.GetTyped<RGBA8Tuple>(), target.width / 2, target.height,
                                      nullptr);
    HasPixels(other);
}
}

int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size) {
    Fuzz::LimitDecoding();
    Kernel::Dispatch::SetThreadCount(1);
    auto const target = TakeTarget(data, size);
    auto item = Load(Fuzz::Bytes(data, data + size - std::min(size, targetBytes)));
    if (!item) {
        item = MakeCounted<CompressedRasterData>();
        item->CopyFrom(data, size);
        item->SetInvert(target.isInverted);
    }
    auto const again = Load(Save(*item));
    Expect(again && again->GetSize() == item->GetSize() && again->GetInvert() == item->GetInvert());
    Expect(item->GetSize() == 0 || std::equal(item->GetData(), item->GetData() + item->GetSize(), again->GetData()));
    if (target.format != NoFormat)
        Show(again, target);
    return 0;
}
