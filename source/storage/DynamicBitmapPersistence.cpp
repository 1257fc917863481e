#include "kernel/InSerialiser.h"
#include "kernel/OutSerialiser.h"
#include "kernel/Trace.h"
#include "pixel/EnumSerialisers.h"
#include "storage/DynamicBitmap.h"

namespace Raster {
namespace {
constexpr Kernel::IDTag formatTag("Frmt"), widthTag("BmpW"), heightTag("BmpH");
}

void DynamicBitmap::Save(Kernel::OutSerialiser & serialiser) const {
    serialiser.SaveEnumI(formatTag, FormatEnumSerialiser::GetInstance(), static_cast<int>(GetFormat()));
    serialiser.SaveType(widthTag, GetWidth());
    serialiser.SaveType(heightTag, GetHeight());
    if (auto const * const core = GetCore())
        core->SaveInline(serialiser);
}

bool DynamicBitmap::Load(Kernel::InSerialiser const & serialiser, Kernel::FileStore & store, unsigned short version) {
    int format = NoFormat, width = 0, height = 0;
    // An unknown format is one of a later version: an empty bitmap in its place would be saved over the pixels.
    if (!serialiser.LoadEnumI(formatTag, FormatEnumSerialiser::GetInstance(), format) &&
        serialiser.HasProperty(formatTag)) {
        Kernel::Trace("A bitmap of a document has a format that is not known: it is not loaded\n");
        return false;
    }
    serialiser.LoadType(widthTag, width);
    serialiser.LoadType(heightTag, height);
    if (width < 0 || height < 0) {
        Kernel::Trace("A bitmap of a document has the size %1 by %2: it is not loaded\n", width, height);
        return false;
    }
    if (format == NoFormat)
        return true;
    Create(width, height, static_cast<Format>(format), MipmapModeOnDemandDefault, HardwareCachePolicy::Default);
    auto * const core = GetCore();
    if (core && core->LoadInline(serialiser, store, version))
        return true;
    *this = DynamicBitmap();
    return false;
}
}
