#include "host/Document.h"

#include "files/DynamicFile.h"
#include "host/DocumentDisk.h"
#include "host/Signals.h"
#include "kernel/ArchiveSession.h"
#include "kernel/FileStoreOutPathGenerator.h"
#include "kernel/FutureVersionException.h"
#include "kernel/InSerialiserFile.h"
#include "kernel/OutSerialiser.h"
#include "storage/CompressedRasterData.h"
#include "storage/DeduplicationPass.h"
#include "storage/RasterSerialisationStrategy.h"
#include "storage/StoredClasses.h"
#include "storage/TileGrid.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <map>
#include <optional>

namespace Host {
namespace {
using Raster::CompressedRasterData;

constexpr Kernel::IDTag nameTag("Name"), offsetTag("Offs"), opacityTag("Opac"), dpiTag("Dpi "), bitmapTag("Bmap"),
    profileTag("Prof"), fileTag("File");
constexpr Kernel::IDTag rootTag("RDoc"), widthTag("Widt"), heightTag("Heig"), countTag("Laye"), profilesTag("Prfs");
constexpr unsigned short documentVersion = 1;
constexpr char const * documentStream = "Document.dat";
constexpr std::uint32_t mostLayers = 10000;

Failure MakeLayersFailure() { return Failure(fmt::format("a document has {} layers at most", mostLayers)); }

constexpr char const * layerPrefix = "Layer-";
std::string GetLayerStream(std::size_t index) { return fmt::format("{}{:04}.dat", layerPrefix, index + 1); }

/// The other way round; nothing for other streams.
std::optional<std::size_t> GetLayerIndex(std::string_view name) {
    std::size_t number = 0;
    if (name.starts_with(layerPrefix)) {
        auto const digits = name.substr(std::string_view(layerPrefix).size());
        std::from_chars(digits.data(), digits.data() + digits.size(), number);
    }
    return number != 0 && name == GetLayerStream(number - 1) ? std::optional(number - 1) : std::nullopt;
}

constexpr char const * salvageHint = "; `raster document salvage` saves what is whole";
constexpr char const * keepHint =
    "; --keep-damaged saves it nevertheless, `raster document salvage` saves what is whole";

char const * GetOpenHelp(std::string const & path) {
    std::error_code error;
    auto const status = std::filesystem::status(path, error);
    if (std::filesystem::is_directory(status))
        return "; name a document in that folder";
    if (std::filesystem::is_other(status))
        return "; a document is always a file";
    return std::filesystem::exists(status) ? "; see who owns it" : "; see that the name is right";
}

/// Does what may fail because of the document.
template<class Work>
auto OnArchive(std::string const & path, Work && work) {
    try {
        return work();
    } catch (Kernel::ArchiveError const & error) {
        throw Document::MakeFailure(error, path);
    } catch (Kernel::FutureVersionException const &) {
        throw LaterVersion("was written by a later version of this program");
    } catch (Kernel::PropertyStreamError const & error) {
        throw Failure(fmt::format("is damaged ({}){}", error.what(), salvageHint));
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
    serialiser.SaveSharedObject(profileTag, profile.Get(), unreadProfile);
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
    serialiser.LoadSharedObject(profileTag, store, profile, unreadProfile);
    serialiser.LoadDelayLoadObject(fileTag, store, CompressedRasterData::GetTypeFileStoreItemType(), placedFile);
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

Failure Document::MakeFailure(Kernel::ArchiveError const & error, std::string const & path) {
    auto const text = WithoutPath(error.what(), path);
    if (error.GetKind() == Kernel::ArchiveError::Kind::NotFound)
        return Failure(text + GetOpenHelp(path));
    bool const isDamage = error.GetKind() == Kernel::ArchiveError::Kind::Damaged || text.ends_with("damaged");
    return Failure(text + (isDamage ? salvageHint : ""));
}

void Document::RegisterClasses() {
    Raster::RegisterStoredClasses();
    Layer::GetClassProperties().Init();
}

bool Document::IsDocument(std::string const & path) {
    try {
        Kernel::Archive::Open(path, archiveTag);
        return true;
    } catch (Kernel::ArchiveError const & error) {
        return error.GetKind() != Kernel::ArchiveError::Kind::NotArchive &&
               error.GetKind() != Kernel::ArchiveError::Kind::NotFound;
    }
}

Document Document::Create(std::string const & path, Kernel::ArchiveTarget target) {
    return Document(Kernel::Archive::Create(path, archiveTag, Kernel::MakeCounted<DocumentDisk>(target)));
}

Document Document::Open(std::string const & path) {
    return OnArchive(path, [&] {
        Document document(Kernel::Archive::Open(path, archiveTag, Kernel::MakeCounted<DocumentDisk>()));
        document.Load();
        return document;
    });
}

Document Document::OpenRemains(std::string const & path) {
    return OnArchive(path, [&] {
        Document document(Kernel::Archive::Open(path, archiveTag, Kernel::MakeCounted<DocumentDisk>()));
        std::uint32_t count = 0;
        try {
            if (auto const stream = document.archive->OpenStream(documentStream))
                document.LoadRoot(
                    *Kernel::InSerialiserFile::ParseWithChecks(*stream, *document.archive, false, documentVersion),
                    count);
        } catch (Kernel::ArchiveError const &) { // the layers tell enough
        } catch (Kernel::PropertyStreamError const &) {
        }
        std::map<std::size_t, Kernel::Counted<Layer>> found; // by the place from the bottom
        for (auto const & item : document.archive->GetInfo().items)
            if (auto const index = GetLayerIndex(item.name); index && document.archive->HasStream(item.name))
                if (auto layer = document.LoadLayer(item.name))
                    found.emplace(*index, std::move(layer));
        for (auto & [index, layer] : found)
            document.layers.push_back(layer);
        // What has no layer takes the places of those that are lost, in order, so that a background stays below.
        std::size_t place = 0;
        for (auto & layer : document.MakeLayersOfOtherFiles()) {
            while (found.contains(place))
                ++place;
            found.emplace(place, std::move(layer));
        }
        document.layers.clear();
        for (auto & [index, layer] : found)
            document.layers.push_back(std::move(layer));
        for (auto const & layer : document.layers) {
            document.width = std::max(document.width, layer->bitmap.GetWidth());
            document.height = std::max(document.height, layer->bitmap.GetHeight());
        }
        return document;
    });
}

std::vector<Kernel::Counted<Layer>> Document::MakeLayersOfOtherFiles() {
    std::vector<Kernel::Counted<Layer>> made;
    auto const & type = CompressedRasterData::GetTypeFileStoreItemType();
    for (auto const & item : archive->GetInfo().items) {
        if (item.type != type.GetTag())
            continue;
        auto const holder = archive->GetHolder(item.id, type);
        bool const isPlaced =
            std::any_of(layers.begin(), layers.end(), [&](auto const & layer) { return layer->placedFile == holder; });
        Kernel::DelayLoadHolder::TempLoadItem const load(holder);
        Signals::ThrowIfAborted();
        // Its header is enough: what can't be decoded here, for want of memory say, isn't to be left out.
        Raster::DynamicFile file;
        if (isPlaced || !file.Create(Kernel::Counted(load.GetItemAs<CompressedRasterData const>())) ||
            file.GetFormat() == Raster::NoFormat)
            continue; // nothing that can be shown
        auto layer = MakeLayer(holder, file.GetWidth(), file.GetHeight(), file.GetFormat(),
                               file.IsProfileFallback() ? nullptr : file.GetProfile());
        layer->dpi = file.GetDPI();
        layer->name = fmt::format("salvaged-{}", made.size() + 1).c_str();
        made.push_back(std::move(layer));
    }
    return made;
}

Kernel::Counted<Layer> Document::MakeLayer(Kernel::Counted<Kernel::DelayLoadHolder> placedFile, int width, int height,
                                           Raster::Format format, Raster::ICCManager::Profile const & profile) {
    auto layer = Kernel::MakeCounted<Layer>();
    layer->profile = profile;
    layer->placedFile = placedFile;
    layer->bitmap.Create(width, height, format, Raster::MipmapModeOnDemand, Raster::HardwareCachePolicy::Default);
    if (!layer->bitmap.GetCore())
        throw Failure("is larger than a layer can be");
    layer->bitmap.GetCore()->SetPendingBacking(placedFile);
    layer->bitmap.SetBackingData(placedFile, profile);
    return layer;
}

void Document::Load() {
    auto const stream = archive->OpenStream(documentStream);
    if (!stream)
        throw Failure(fmt::format("has no list of layers{}", salvageHint));
    auto const root = Kernel::InSerialiserFile::ParseWithChecks(*stream, *archive, false, documentVersion);
    std::uint32_t count = 0;
    LoadRoot(*root, count);
    if (count > mostLayers)
        throw MakeLayersFailure();
    for (std::size_t i = 0; i < count; ++i) {
        auto layer = LoadLayer(GetLayerStream(i));
        if (!layer)
            throw Failure(fmt::format("layer {} is missing or damaged{}", i + 1, salvageHint));
        layer->isStored = true;
        layers.push_back(std::move(layer));
    }
}

void Document::LoadRoot(Kernel::InSerialiser const & root, std::uint32_t & layerCount) {
    root.LoadType(widthTag, width);
    root.LoadType(heightTag, height);
    root.LoadType(countTag, layerCount);
    root.LoadClassI(
        profilesTag, profiles.GetClassProperties().GetClassUID(),
        [&](Kernel::InSerialiser const & nested, unsigned short version) { profiles.Load(nested, *archive, version); });
}

Kernel::Counted<Layer> Document::LoadLayer(std::string const & streamName) {
    try {
        auto const stream = archive->OpenStream(streamName);
        if (!stream)
            return {};
        // One of a later version has more to it than would be saved again.
        auto const parsed = Kernel::InSerialiserFile::ParseWithChecks(*stream, *archive, /*acceptFutureVersions=*/false,
                                                                      Layer::GetClassProperties().GetSchemaVersion());
        auto layer = Kernel::MakeCounted<Layer>();
        if (!layer->Load(*parsed, *archive, parsed->GetRootVersion()))
            return {};
        auto const & pixels = *layer->bitmap.GetCore();
        for (int i = 0; i < pixels.GetPlaneCount(); ++i)
            tileCount += pixels.GetPlane(i).GetTileCount();
        if (tileCount > Raster::maximumTileCount)
            throw Failure("has layers of more than 2^24 tiles, which is a terabyte of pixels; it was made to do harm, "
                          "or is damaged");
        return layer;
    } catch (Kernel::ArchiveError const &) {
        return {};
    } catch (Kernel::PropertyStreamError const &) {
        return {};
    }
}

// What was painted in one colour is a byte for each tile then, and a tile that is met again is compressed once.
void Document::ShareEqualTiles() {
    Raster::DeduplicationPass pass;
    for (auto const & layer : layers)
        pass.Add(layer->bitmap);
}

Kernel::ArchiveSaveCounts Document::Save(SaveSettings const & settings) {
    if (layers.size() > mostLayers)
        throw MakeLayersFailure();
    ShareEqualTiles();
    return OnArchive(GetPath(), [&] {
        try {
            return Store(settings);
        } catch (Kernel::ArchiveError const & error) {
            if (error.GetKind() != Kernel::ArchiveError::Kind::Damaged || settings.keepDamaged)
                throw;
            throw Failure(WithoutPath(error.what(), GetPath()) + keepHint);
        }
    });
}

Kernel::ArchiveSaveCounts Document::Store(SaveSettings const & settings) {
    auto session = archive->CreateSession(settings.mode);
    session->SetKeepDamaged(settings.keepDamaged);
    session->AddStrategy(Kernel::MakeCounted<Raster::RasterSerialisationStrategy>(
        std::vector<int>{0}, Raster::RasterSerialisationStrategy::AllowByReference));
    for (std::size_t i = 0; i < layers.size(); ++i) {
        Signals::ThrowIfAborted();
        // A layer that hasn't changed costs no look at its tiles.
        if (!layers[i]->isStored || !session->KeepStream(GetLayerStream(i)))
            session->StoreObject(GetLayerStream(i), *layers[i]);
        if (settings.progress)
            settings.progress->Show(static_cast<double>(i + 1) / static_cast<double>(layers.size() + 1));
    }
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
    auto const counts = archive->CloseSession(std::move(session));
    for (auto const & layer : layers)
        layer->isStored = true;
    return counts;
}

Layer const & Document::GetLayer(int number) const {
    if (number < 1 || static_cast<std::size_t>(number) > layers.size())
        throw Failure(fmt::format("has no layer {}; it has {}", number, layers.size()));
    return *layers[static_cast<std::size_t>(number - 1)];
}

Layer & Document::ChangeLayer(int number) {
    static_cast<void>(GetLayer(number));
    auto & layer = *layers[static_cast<std::size_t>(number - 1)];
    layer.isStored = false;
    return layer;
}
}
