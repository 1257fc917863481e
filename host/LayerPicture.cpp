#include "host/LayerPicture.h"

#include "files/DynamicFile.h"
#include "host/Damage.h"
#include "host/Failure.h"
#include "host/Formats.h"
#include "host/Metadata.h"
#include "host/Signals.h"
#include "storage/CompressedRasterData.h"

#include <fmt/format.h>

namespace Host {
using Kernel::DelayLoadHolder;
using Raster::CompressedRasterData;

void LayerPicture::Load(bool isStrict, Progress & progress) const {
    if (!layer.bitmap.IsPendingDelayLoad())
        return;
    layer.bitmap.ForceDelayLoad(progress.GetParams().abort);
    Signals::ThrowIfAborted();
    if (layer.bitmap.IsPendingDelayLoad())
        throw Failure(fmt::format("the file of layer \"{}\" is missing or damaged", layer.name.GetCharacters()));
    CheckDecoding(isStrict);
}

void LayerPicture::CheckDecoding(bool isStrict) const {
    DelayLoadHolder::TempLoadItem const item(layer.bitmap.GetBackingData().Get());
    auto const * const file = item.GetItemAs<CompressedRasterData>();
    if (!file)
        return;
    auto const [failure, warning] = file->GetDecodeProblems();
    if (!failure.IsEmpty())
        throw Failure(
            fmt::format("the file of layer \"{}\" can't be decoded: {}", layer.name.GetCharacters(),
                        AddHelp(failure.GetCharacters(), "`raster document extract --original` writes it as it is")));
    if (warning.IsEmpty())
        return;
    auto const damage =
        fmt::format("the file of layer \"{}\" is damaged ({})", layer.name.GetCharacters(), warning.GetCharacters());
    if (isStrict)
        throw Failure(damage + "; leave --strict out to take what is there");
    session.GetMessages().Warn(name, damage + ", a part of the picture may be wrong");
}

void LayerPicture::TellOfDamage() const {
    if (auto const damaged = CountDamagedTiles(layer.bitmap))
        session.GetMessages().Warn(
            name, fmt::format("{} of layer \"{}\" damaged, and left empty; `raster document verify` tells more",
                              SayHowManyTiles(damaged), layer.name.GetCharacters()));
    TellOfLostProfile();
}

void LayerPicture::TellOfLostProfile() const {
    if (layer.unreadProfile)
        session.GetMessages().Warn(name, fmt::format("the profile of layer \"{}\" is missing or damaged: its colours "
                                                     "are taken as if it had none; `raster document verify` tells more",
                                                     layer.name.GetCharacters()));
}

Picture LayerPicture::Make(ReadSettings const & reading) const {
    Picture picture;
    picture.name = name;
    picture.bitmap = layer.bitmap;
    picture.dpi = layer.dpi;
    picture.profile = layer.profile;
    if (picture.profile || reading.assumeProfile.empty())
        return picture;
    auto assumed = FindProfile(reading.assumeProfile);
    if (Raster::ICCManager::CanApplyProfileToFormat(assumed, layer.bitmap.GetFormat())) { // it may be for another layer
        picture.profile = std::move(assumed);
        picture.isAssumed = true;
    }
    return picture;
}

Picture LayerPicture::MakeToBeWritten(ReadSettings const & reading) const {
    auto picture = Make(reading);
    DelayLoadHolder::TempLoadItem const item(layer.placedFile);
    Kernel::Counted<CompressedRasterData const> const data(item.GetItemAs<CompressedRasterData>());
    if (!data)
        return picture;
    Raster::CompressedRasterDataInStream stream(data);
    picture.metadata = FindMetadata(stream);
    Raster::DynamicFile file;
    if (file.Create(data) && file.GetFormat() != Raster::NoFormat)
        picture.orientation = file.GetOrientation();
    picture.orientationHelp = "`raster convert --auto-orient` turns the file that was placed";
    return picture;
}
}
