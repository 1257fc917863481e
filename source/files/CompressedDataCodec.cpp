// How the bytes of image files in documents are shown: the formats know how to decode them.
#include "colour/ICCManager.h"
#include "files/DynamicFile.h"
#include "files/FileTransfer.h"
#include "pixel/transfer/BitmapTransfer.h"
#include "pixel/transfer/Invert.h"
#include "pixel/transfer/TransferManaged.h"
#include "storage/CompressedRasterData.h"

#include <exception>
#include <new>

namespace Raster {
namespace {
// Whether the file could be decoded. That it can't is no error of who asks for pixels: it shows an empty picture.
bool DrawWhole(DynamicBitmap & bitmap, DynamicFile & file, bool * abort) {
    TransferParams params;
    params.abort = abort;
    try {
        DrawOnce(bitmap, file, &params, nullptr, 0, 0);
    } catch (std::bad_alloc const &) {
        throw; // there may be memory the next time
    } catch (std::exception const &) {
        if (!file.HasFailed())
            throw;
    }
    return !file.HasFailed();
}

void Decode(Kernel::Counted<CompressedRasterData const> const & data, DynamicBitmap & bitmap,
            Kernel::Consolidated<ICCProfile> & profile, DecodeProblems & problems, bool * abort) {
    DynamicFile file;
    if (!file.Create(data, false, false) || file.GetFormat() == NoFormat) {
        problems.failure = file.GetFailure().c_str();
        return;
    }
    DynamicBitmap decoded(file.GetWidth(), file.GetHeight(), file.GetFormat(), MipmapModeOnDemandDefault,
                          HardwareCachePolicy::Default);
    if (!DrawWhole(decoded, file, abort)) {
        problems.failure = file.GetFailure().c_str();
        return;
    }
    problems.warning = file.EndedEarly() ? "the file ends early" : file.GetWarning().c_str();
    profile = file.GetProfile();
    bitmap = decoded;
}

void InvertColours(DynamicBitmap & bitmap, bool * abort) { Invert(bitmap, abort); }

void Convert(DynamicBitmap & dest, DynamicBitmap const & source, Kernel::Consolidated<ICCProfile> const & sourceProfile,
             Kernel::Consolidated<ICCProfile> const & destProfile, bool * abort) {
    void * transform = nullptr;
    if (sourceProfile && destProfile && sourceProfile != destProfile)
        transform = ICCManager::GetInstance().GetTransformForProfiles(
            source.GetFormat(), sourceProfile, dest.GetFormat(), destProfile, Intent::RelativeColorimetric,
            /*blackPointCompensation=*/true);
    TransferParams params;
    params.abort = abort;
    TransferManaged(dest, source, transform, &params);
}

constexpr CompressedDataCodec codec{Decode, InvertColours, Convert};
}
}

// Connected when the library is loaded, as Lab is: who links the static library names this symbol to the linker.
extern "C" {
extern bool rasterFilesAreConnected;
bool rasterFilesAreConnected = (Raster::SetCompressedDataCodec(&Raster::codec), true);
}
