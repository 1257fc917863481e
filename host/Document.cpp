#include "host/Document.h"

#include "host/Failure.h"
#include "kernel/ArchiveSession.h"
#include "kernel/FileStoreOutPathGenerator.h"
#include "kernel/FutureVersionException.h"
#include "kernel/InSerialiserFile.h"
#include "kernel/OutSerialiser.h"
#include "storage/CompressedRasterData.h"
#include "storage/DeduplicationPass.h"
#include "storage/RasterSerialisationStrategy.h"
#include "storage/StoredClasses.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace Host {
namespace {
constexpr Kernel::IDTag nameTag("Name"), offsetTag("Offs"), opacityTag("Opac"), dpiTag("Dpi "), bitmapTag("Bmap"),
    profileTag("Prof"), fileTag("File");
constexpr Kernel::IDTag rootTag("RDoc"), widthTag("Widt"), heightTag("Heig"), countTag("Laye"), profilesTag("Prfs");
constexpr unsigned short documentVersion = 1;
constexpr char const * documentStream = "Document.dat";
constexpr std::uint32_t mostLayers = 10000;

std::string GetLayerStream(std::size_t index) { return fmt::format("Layer-{:04}.dat", index + 1); }

/// Does what may fail because of the document.
template<class Work>
auto OnArchive(std::string const & path, Work && work) {
    try {
        return work();
    } catch (Kernel::ArchiveError const & error) {
        throw Failure(Document::WithoutPath(error.what(), path));
    } catch (Kernel::FutureVersionException const &) {
        throw Failure("was written by a later version of this program");
    } catch (Kernel::PropertyStreamError const & error) {
        throw Failure(fmt::format("is damaged ({}); `raster document salvage` saves what is whole", error.what()));
    }
}
}

Kernel::ClassProperties const & Layer::GetClassProperties() {
    static Kernel::ClassProperties const properties("Layr", /*version=*/1,
                                                    [] { return Kernel::Counted<Kernel::Serialisable>(new Layer); });
    return properties;
}

void Layer::Save(Kernel::OutSerialiser & serialiser) const {
    serialiser.SaveType(nameTag, name);
    serialiser.SaveType(offsetTag, offset);
    serialiser.SaveType(opacityTag, opacity);
    serialiser.SaveType(dpiTag, dpi);
    serialiser.SaveSharedObject(profileTag, profile.Get());
    // Not compressed: picture files are already.
    serialiser.SaveDelayLoadObject(fileTag, placedFile.Get(), Kernel::FileStoreOutIndexedPathGenerator("", "c/"),
                                   nullptr);
    serialiser.SaveObject(bitmapTag, bitmap);
}

bool Layer::Load(Kernel::InSerialiser const & serialiser, Kernel::FileStore & store, unsigned short) {
    serialiser.LoadType(nameTag, name);
    serialiser.LoadType(offsetTag, offset);
    serialiser.LoadType(opacityTag, opacity);
    opacity = std::isfinite(opacity) ? std::clamp(opacity, 0.0f, 1.0f) : 1.0f;
    serialiser.LoadType(dpiTag, dpi);
    dpi = std::isfinite(dpi) && dpi > 0 ? dpi : 72;
    serialiser.LoadSharedObject(profileTag, store, profile);
    serialiser.LoadDelayLoadObject(fileTag, store, Raster::CompressedRasterData::GetTypeFileStoreItemType(),
                                   placedFile);
    Kernel::Counted<Kernel::Serialisable> loaded;
    serialiser.LoadObjectI(bitmapTag, store, loaded);
    auto const picture = Kernel::DynamicCast<Raster::DynamicBitmap>(loaded);
    if (!picture || picture->GetFormat() == Raster::NoFormat)
        return false;
    bitmap = *picture;
    return true;
}

std::string Document::WithoutPath(std::string_view text, std::string const & path) {
    if (text.starts_with(path + ": "))
        text.remove_prefix(path.size() + 2);
    return std::string(text);
}

void Document::RegisterClasses() {
    Raster::RegisterStoredClasses();
    Layer::GetClassProperties().Init();
}

Document Document::Create(std::string const & path) { return Document(Kernel::Archive::Create(path, archiveTag)); }

Document Document::Open(std::string const & path) {
    return OnArchive(path, [&] {
        Document document(Kernel::Archive::Open(path, archiveTag));
        document.Load();
        return document;
    });
}

void Document::Load() {
    auto const stream = archive->OpenStream(documentStream);
    if (!stream)
        throw Failure("has no list of layers; `raster document salvage` saves what is whole");
    auto const root = Kernel::InSerialiserFile::ParseWithChecks(*stream, *archive, false, documentVersion);
    root->LoadType(widthTag, width);
    root->LoadType(heightTag, height);
    std::uint32_t count = 0;
    root->LoadType(countTag, count);
    root->LoadClassI(
        profilesTag, profiles.GetClassProperties().GetClassUID(),
        [&](Kernel::InSerialiser const & nested, unsigned short version) { profiles.Load(nested, *archive, version); });
    for (std::size_t i = 0; i < std::min(count, mostLayers); ++i) {
        auto const layerStream = archive->OpenStream(GetLayerStream(i));
        auto layer = Kernel::MakeCounted<Layer>();
        auto const parsed =
            layerStream ? Kernel::InSerialiserFile::ParseWithChecks(*layerStream, *archive, false) : nullptr;
        if (!parsed || !layer->Load(*parsed, *archive, parsed->GetRootVersion()))
            throw Failure(
                fmt::format("layer {} is missing or damaged; `raster document salvage` saves what is whole", i + 1));
        layers.push_back(std::move(layer));
    }
}

// What was painted in one colour is a byte for each tile then, and a tile that is met again is compressed once.
void Document::ShareEqualTiles() {
    Raster::DeduplicationPass pass;
    for (auto const & layer : layers)
        pass.Add(layer->bitmap);
}

Kernel::ArchiveSaveCounts Document::Save(SaveSettings const & settings) {
    ShareEqualTiles();
    return OnArchive(GetPath(), [&] {
        auto session = archive->CreateSession(settings.mode);
        session->SetKeepDamaged(settings.keepDamaged);
        session->AddStrategy(Kernel::MakeCounted<Raster::RasterSerialisationStrategy>(
            std::vector<int>{0}, Raster::RasterSerialisationStrategy::AllowByReference));
        for (std::size_t i = 0; i < layers.size(); ++i)
            session->StoreObject(GetLayerStream(i), *layers[i]);
        session->StoreProperties(documentStream, rootTag, documentVersion, [&](Kernel::OutSerialiser & serialiser) {
            serialiser.SaveType(widthTag, width);
            serialiser.SaveType(heightTag, height);
            serialiser.SaveType(countTag, static_cast<std::uint32_t>(layers.size()));
            if (serialiser.StartClassTestI(profilesTag)) {
                serialiser.StartClassBeginI(profiles.GetClassProperties().GetClassUID(),
                                            profiles.GetClassProperties().GetSchemaVersion());
                profiles.Save(serialiser);
                serialiser.EndPropClassI();
            }
        });
        return archive->CloseSession(std::move(session));
    });
}

Layer & Document::GetLayer(int number) {
    if (number < 1 || static_cast<std::size_t>(number) > layers.size())
        throw Failure(fmt::format("has no layer {}; it has {}", number, layers.size()));
    return *layers[static_cast<std::size_t>(number - 1)];
}
}
