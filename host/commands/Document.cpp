#include "host/Document.h"

#include "files/DynamicFile.h"
#include "host/Damage.h"
#include "host/DocumentDisk.h"
#include "host/Failure.h"
#include "host/Formats.h"
#include "host/JsonReport.h"
#include "host/OutputFile.h"
#include "host/Picture.h"
#include "host/PictureWriter.h"
#include "host/Signals.h"
#include "host/Text.h"
#include "host/commands/Commands.h"
#include "kernel/AffineTransform.h"
#include "kernel/ArchiveCheck.h"
#include "pixel/transfer/BitmapTransfer.h"
#include "pixel/transfer/Fill.h"
#include "storage/CompressedRasterData.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>

namespace Host {
namespace {
using Raster::CompressedRasterData;

void Print(std::string const & text) { std::fputs(text.c_str(), stdout); }

/// Progress of work that goes through a document.
void ShowFraction(void * context, double fraction) { static_cast<Progress *>(context)->Show(fraction); }

/// Opens a picture's header: what is no picture fails here.
SourceFile OpenPicture(Session & session, std::string const & path, ReadSettings const & reading = {}) {
    try {
        return SourceFile(session, path, reading);
    } catch (Failure const &) {
        if (Document::IsDocument(path))
            throw Failure("is a document; `raster document extract` makes pictures of its layers");
        throw;
    }
}

Kernel::Counted<Layer> Place(Session & session, std::string const & path) {
    auto const source = OpenPicture(session, path);
    auto const data = Kernel::MakeCounted<CompressedRasterData>();
    if (!data->SetFromFile(path.c_str()))
        throw Failure("can't be read");
    auto const & file = source.GetFile();
    auto const placed = Kernel::DelayLoadHolder::Create(CompressedRasterData::GetTypeFileStoreItemType(), data);
    auto layer = Document::MakeLayer(placed, file.GetWidth(), file.GetHeight(), file.GetFormat(),
                                     file.IsProfileFallback() ? nullptr : file.GetProfile());
    layer->name = std::filesystem::path(path).filename().string().c_str();
    layer->dpi = file.GetDPI();
    return layer;
}

Kernel::ArchiveTarget GetTarget(bool noClobber) {
    return noClobber ? Kernel::ArchiveTarget::OnlyFree : Kernel::ArchiveTarget::Any;
}

/// That nothing but a document is replaced by one: who forgets its name would lose the first picture.
void CheckTarget(std::string const & path, bool noClobber) {
    OutputFile::Check(path, noClobber ? Existing::Keep : Existing::Replace);
    std::error_code error;
    bool const isFile = std::filesystem::is_regular_file(path, error);
    bool const isOther = !isFile && std::filesystem::exists(path, error);
    if (isOther || (isFile && std::filesystem::file_size(path, error) != 0 && !Document::IsDocument(path)))
        throw Failure("is there already and is no document; name the new document first");
}

/// That no document is replaced by a picture: `extract DOC 1 DOC` would leave one layer of all.
void CheckPictureTarget(std::string const & path) {
    std::error_code error;
    if (std::filesystem::is_regular_file(path, error) && Document::IsDocument(path))
        throw Failure("is a document; name another file for the picture");
}

bool Create(Session & session, DocumentSettings const & settings) {
    return session.Try(settings.document, [&] {
        CheckTarget(settings.document, settings.noClobber);
        auto document = Document::Create(settings.document, GetTarget(settings.noClobber));
        for (auto const & path : settings.files) {
            Signals::ThrowIfAborted();
            auto const layer = Blaming(path, [&] { return Place(session, path); });
            document.width = std::max(document.width, layer->bitmap.GetWidth());
            document.height = std::max(document.height, layer->bitmap.GetHeight());
            document.layers.push_back(layer);
        }
        Progress progress(session.GetMessages(), settings.document);
        document.Save({.progress = &progress});
    });
}

/// Pixels that a layer has, as far as painting goes. Throws if they can't be had.
void LoadPixels(Layer const & layer, Progress & progress) {
    auto const params = progress.GetParams();
    layer.bitmap.ForceDelayLoad(params.abort);
    Signals::ThrowIfAborted();
    if (layer.bitmap.IsPendingDelayLoad())
        throw Failure(fmt::format("the file of layer \"{}\" is missing or damaged", layer.name.GetCharacters()));
}

std::string CountInWords(std::size_t tiles) { return tiles == 1 ? "a tile" : fmt::format("{} tiles", tiles); }

/// Says of a picture that is about to be written what is not in it.
void TellOfDamage(Session & session, std::string const & path, Layer const & layer) {
    if (auto const damaged = CountDamagedTiles(layer.bitmap))
        session.GetMessages().Warn(
            path, fmt::format("{} of layer \"{}\" damaged, and left empty; `raster document verify` tells more",
                              CountInWords(damaged), layer.name.GetCharacters()));
    if (layer.isProfileLost)
        session.GetMessages().Warn(path, fmt::format("the profile of layer \"{}\" is damaged, and left out; "
                                                     "`raster document verify` tells more",
                                                     layer.name.GetCharacters()));
}

/// What is painted on a damaged tile would be all that is saved of it.
void CheckForPainting(Layer const & layer, Kernel::RectT<int> const & area, DocumentSettings const & settings) {
    if (settings.keepDamaged)
        return;
    if (auto const damaged = CountDamagedTiles(layer.bitmap, area))
        throw Failure(fmt::format("{} damaged there, and painting would lose what may still be saved of it; "
                                  "see `raster document verify`, or take --keep-damaged",
                                  CountInWords(damaged)));
}

/// Whether a layer has pixels there; says so if it doesn't, since then nothing is done.
bool IsOnLayer(Session & session, Layer const & layer, Kernel::RectT<int> const & area,
               DocumentSettings const & settings) {
    if (!area.Intersect(layer.bitmap.GetCore()->GetBounds()).IsEmpty())
        return true;
    session.GetMessages().Warn(settings.document,
                               fmt::format("that is beside layer {}, which is {} x {} pixels; nothing was changed",
                                           settings.layer, layer.bitmap.GetWidth(), layer.bitmap.GetHeight()));
    return false;
}

Picture MakePicture(Layer const & layer, std::string const & name) {
    Picture picture;
    picture.name = name;
    picture.bitmap = layer.bitmap;
    picture.dpi = layer.dpi;
    picture.profile = layer.profile;
    return picture;
}

void ExtractOriginal(Layer const & layer, DocumentSettings const & settings) {
    Kernel::DelayLoadHolder::TempLoadItem const item(layer.placedFile);
    auto const * const file = item.GetItemAs<CompressedRasterData>();
    if (!file)
        throw Failure("the file that was placed is not in the document, or damaged");
    OutputFile output(settings.out, settings.writing.noClobber ? Existing::Keep : Existing::Replace);
    if (output.GetStream()->Write(file->GetData(), file->GetSize()) != file->GetSize())
        throw Failure(output.GetWriteFailure());
    output.Commit();
}

bool Extract(Session & session, DocumentSettings const & settings) {
    return session.Try(settings.document, [&] {
        session.PrepareForPixels();
        Blaming(settings.out, [&] { CheckPictureTarget(settings.out); });
        auto document = Document::Open(settings.document);
        auto const & layer = document.GetLayer(settings.layer);
        if (settings.original)
            return Blaming(settings.out, [&] { ExtractOriginal(layer, settings); });
        PictureWriter writer(session, settings.out, settings.writing, {});
        Progress progress(session.GetMessages(), settings.document);
        progress.BeginStep(0.5);
        LoadPixels(layer, progress);
        TellOfDamage(session, settings.document, layer);
        writer.CheckSize(layer.bitmap.GetWidth(), layer.bitmap.GetHeight());
        writer.Write(MakePicture(layer, settings.document), progress);
    });
}

void SaveAndTell(Session & session, Document & document, DocumentSettings const & settings) {
    Signals::ThrowIfAborted();
    auto const saved = document.Save({Kernel::ArchiveSaveMode::Update, settings.keepDamaged});
    session.GetMessages().Note(
        settings.document, fmt::format("{} new items, {} written", saved.itemsAdded, FormatBytes(saved.bytesWritten)));
}

bool Fill(Session & session, DocumentSettings const & settings) {
    return session.Try(settings.document, [&] {
        session.PrepareForPixels();
        auto document = Document::Open(settings.document);
        auto & layer = document.ChangeLayer(settings.layer);
        if (!IsOnLayer(session, layer, settings.rect, settings))
            return;
        Progress progress(session.GetMessages(), settings.document);
        progress.BeginStep(0.8);
        LoadPixels(layer, progress);
        CheckForPainting(layer, settings.rect, settings);
        auto const [red, green, blue] = settings.colour;
        Raster::PixelOf<Raster::RGBA8Tuple> pixel{};
        pixel.channels[0] = red;
        pixel.channels[1] = green;
        pixel.channels[2] = blue;
        pixel.channels[3] = 255;
        Raster::Fill(layer.bitmap, settings.rect, Raster::DynamicPixel(pixel), static_cast<float>(settings.opacity));
        SaveAndTell(session, document, settings);
    });
}

/// What a stamp may touch, with a pixel around it for positions between pixels.
Kernel::RectT<int> GetStampedArea(DynamicBitmap const & stamp, DocumentSettings const & settings) {
    int const left = static_cast<int>(std::floor(settings.x)), top = static_cast<int>(std::floor(settings.y));
    auto const end = [](int start, int size) {
        return static_cast<int>(std::min(std::int64_t(start) + size + 1, std::int64_t(1) << 30));
    };
    return {left - 1, top - 1, end(left, stamp.GetWidth()), end(top, stamp.GetHeight())};
}

bool Stamp(Session & session, DocumentSettings const & settings) {
    return session.Try(settings.document, [&] {
        session.PrepareForPixels();
        auto document = Document::Open(settings.document);
        auto & layer = document.ChangeLayer(settings.layer);
        Progress progress(session.GetMessages(), settings.document);
        progress.BeginStep(0.4);
        auto const stamp = Blaming(settings.files.front(), [&] {
            return OpenPicture(session, settings.files.front(), settings.reading)
                .Decode(Raster::MipmapModeNone, progress);
        });
        auto const area = GetStampedArea(stamp.bitmap, settings);
        if (!IsOnLayer(session, layer, area, settings))
            return;
        progress.BeginStep(0.2);
        LoadPixels(layer, progress);
        CheckForPainting(layer, area, settings);
        auto const plan = PlanMatch(stamp, MakePicture(layer, settings.document));
        auto const matched = ConvertColours(stamp.bitmap, plan, {}, progress);
        auto const matrix = Kernel::AffineTransform::Translate(-settings.x, -settings.y).ToArray();
        auto const opacity = static_cast<float>(settings.opacity);
        auto const params = progress.GetParams();
        Raster::Transfer(layer.bitmap, matched, &params, &opacity, matrix.data());
        SaveAndTell(session, document, settings);
    });
}

bool Flatten(Session & session, DocumentSettings const & settings) {
    return session.Try(settings.document, [&] {
        session.PrepareForPixels();
        Blaming(settings.out, [&] { CheckPictureTarget(settings.out); });
        PictureWriter writer(session, settings.out, settings.writing, {});
        auto document = Document::Open(settings.document);
        if (document.layers.empty())
            throw Failure("has no layers");
        auto const & bottom = *document.layers.front();
        writer.CheckSize(document.width, document.height);
        auto result = MakePicture(bottom, settings.document);
        result.bitmap = DynamicBitmap(document.width, document.height, bottom.bitmap.GetFormat(),
                                      Raster::MipmapModeNone, Raster::HardwareCachePolicy::Default);
        Progress progress(session.GetMessages(), settings.document);
        for (auto const & layer : document.layers) {
            progress.BeginStep(0.8 / static_cast<double>(document.layers.size()));
            LoadPixels(*layer, progress);
            TellOfDamage(session, settings.document, *layer);
            auto const picture = MakePicture(*layer, layer->name.GetCharacters());
            auto const matched = ConvertColours(picture.bitmap, PlanMatch(picture, result), {}, progress);
            auto const matrix = Kernel::AffineTransform::Translate(-layer->offset.x, -layer->offset.y).ToArray();
            auto const params = progress.GetParams();
            Raster::Transfer(result.bitmap, matched, &params, &layer->opacity, matrix.data());
            Signals::ThrowIfAborted();
        }
        writer.Write(std::move(result), progress);
    });
}

bool Compact(Session & session, DocumentSettings const & settings) {
    return session.Try(settings.document, [&] {
        session.PrepareForPixels();
        auto document = Document::Open(settings.document);
        auto const before = document.GetArchive().GetInfo().fileBytes;
        Progress progress(session.GetMessages(), settings.document);
        document.Save({Kernel::ArchiveSaveMode::Compact, settings.keepDamaged, &progress});
        session.GetMessages().Note(
            settings.document,
            fmt::format("{}, was {}", FormatBytes(document.GetArchive().GetInfo().fileBytes), FormatBytes(before)));
    });
}

Kernel::ArchiveReport VerifyWithProgress(Session & session, std::string const & path) {
    Progress progress(session.GetMessages(), path);
    progress.BeginStep(1);
    try {
        auto report = Kernel::VerifyArchive(path, Signals::GetAbortFlag(), ShowFraction, &progress);
        Signals::ThrowIfAborted();
        return report;
    } catch (Kernel::ArchiveError const & error) {
        throw Document::MakeFailure(error, path);
    }
}

bool Verify(Session & session, DocumentSettings const & settings) {
    bool isWhole = false;
    return session.Try(settings.document, [&] {
        auto const report = VerifyWithProgress(session, settings.document);
        for (auto const & problem : report.problems)
            Print(fmt::format("{}: {}{}\n", MakePrintable(settings.document),
                              MakePrintable(Document::WithoutPath(problem.what, settings.document)),
                              problem.isInUse ? "" : " (no longer in use)"));
        isWhole = report.problems.empty();
        Print(fmt::format("{}: {} items, {} checked, {}{}\n", MakePrintable(settings.document), report.itemsChecked,
                          FormatBytes(report.bytesChecked),
                          isWhole ? "whole" : fmt::format("{} damaged", report.problems.size()),
                          report.unfinishedBytes ? ", an unfinished save behind the end" : ""));
    }) && isWhole;
}

/// Makes a document that opens of one that lacks its list of layers, or a layer.
void RepairLayers(Session & session, std::string const & path) {
    try {
        static_cast<void>(Document::Open(path));
    } catch (LaterVersion const &) { // which will know what to make of it
    } catch (Failure const &) {
        session.PrepareForPixels();
        auto document = Document::OpenRemains(path);
        document.Save({Kernel::ArchiveSaveMode::Update, /*keepDamaged=*/true});
        session.GetMessages().Warn(path, fmt::format("layers were lost; what is there makes {}, placed files included",
                                                     document.layers.size()));
    }
}

bool Salvage(Session & session, DocumentSettings const & settings) {
    return session.Try(settings.document, [&] {
        Blaming(settings.out, [&] { CheckTarget(settings.out, settings.writing.noClobber); });
        std::error_code none;
        if (std::filesystem::equivalent(settings.document, settings.out, none))
            throw Failure("OUT is the damaged document itself; name another file");
        Progress progress(session.GetMessages(), settings.document);
        progress.BeginStep(1);
        try {
            auto const disk = Kernel::MakeCounted<DocumentDisk>(GetTarget(settings.writing.noClobber));
            auto const saved = Kernel::SalvageArchive(settings.document, settings.out, Signals::GetAbortFlag(),
                                                      ShowFraction, &progress, disk, Document::archiveTag);
            session.GetMessages().Note(settings.document,
                                       fmt::format("{} items saved, {}; {} lost{}", saved.itemsSaved,
                                                   FormatBytes(saved.bytesSaved), saved.itemsLost,
                                                   saved.hasScanned ? "; looked for in all of the file" : ""));
        } catch (Kernel::ArchiveError const & error) {
            Signals::ThrowIfAborted();
            auto failure =
                Failure(Document::WithoutPath(Document::WithoutPath(error.what(), settings.document), settings.out));
            if (std::string_view(error.what()).starts_with(settings.out + ": "))
                failure.SetFile(settings.out);
            throw failure;
        }
        Blaming(settings.out, [&] { RepairLayers(session, settings.out); });
    });
}

struct TileCounts {
    std::uint64_t own = 0, solid = 0, pending = 0;
};

TileCounts CountTiles(Raster::BitmapCore const & core) {
    TileCounts counts;
    for (int plane = 0; plane < core.GetPlaneCount(); ++plane)
        for (std::size_t i = 0; i < core.GetPlane(plane).GetTileCount(); ++i) {
            auto const & tile = core.GetPlane(plane).GetTile(i);
            bool const isSolid = tile.IsZeroTileBuffer() || tile.IsFullTileBuffer() || tile.IsFullFloatTileBuffer();
            counts.solid += isSolid;
            counts.own += !isSolid && tile.IsAllocated();
            counts.pending += tile.IsPendingDelayLoad();
        }
    return counts;
}

/// The items of one type.
struct ItemCounts {
    std::uint64_t count = 0, rawBytes = 0, storedBytes = 0;
};

/// What there is in a document of each kind that people know, in this order.
constexpr std::array<std::pair<Kernel::IDTag, char const *>, 4> itemKinds{
    {{"Data", "files"}, {"DatI", "tiles"}, {"ShOb", "shared"}, {"Strm", "streams"}}};

ItemCounts CountItems(Kernel::ArchiveInfo const & info, Kernel::IDTag type) {
    ItemCounts counts;
    for (auto const & item : info.items)
        if (item.type == type) {
            ++counts.count;
            counts.rawBytes += item.rawSize;
            counts.storedBytes += item.storedSize;
        }
    return counts;
}

/// A document, and what checking it has found.
struct Inspection {
    Document document;
    Kernel::ArchiveInfo info;
    std::size_t damaged;
};

Inspection Inspect(Session & session, std::string const & path) {
    auto const report = VerifyWithProgress(session, path);
    auto document = Document::Open(path);
    auto info = document.GetArchive().GetInfo();
    auto const damaged = std::count_if(report.problems.begin(), report.problems.end(),
                                       [](Kernel::ArchiveProblem const & problem) { return problem.isInUse; });
    return {std::move(document), std::move(info), static_cast<std::size_t>(damaged)};
}

void PrintInfo(Inspection const & inspection) {
    auto const & [document, info, damaged] = inspection;
    Print(fmt::format("{}\n  canvas       {} x {} pixels\n  file         {}, of which {} dead, commit {}\n"
                      "  items        {}, {} damaged{}\n",
                      MakePrintable(document.GetPath()), document.width, document.height, FormatBytes(info.fileBytes),
                      FormatBytes(info.deadBytes), info.commitNumber, info.items.size(), damaged,
                      damaged ? " (`raster document verify` tells which)" : ""));
    for (auto const & [type, name] : itemKinds)
        if (auto const counts = CountItems(info, type); counts.count != 0)
            Print(fmt::format("  {:<12} {}, {}{}\n", name, counts.count, FormatBytes(counts.storedBytes),
                              counts.rawBytes != counts.storedBytes
                                  ? fmt::format(" for {}", FormatBytes(counts.rawBytes))
                                  : std::string()));
    for (std::size_t i = 0; i < document.layers.size(); ++i) {
        auto const & layer = *document.layers[i];
        auto const tiles = CountTiles(*layer.bitmap.GetCore());
        Print(fmt::format("  layer {:<6} {} ({} x {} {}, at {},{}, opacity {:g}), {}\n", i + 1,
                          MakePrintable(layer.name.GetCharacters()), layer.bitmap.GetWidth(), layer.bitmap.GetHeight(),
                          GetFormatName(layer.bitmap.GetFormat()), layer.offset.x, layer.offset.y, layer.opacity,
                          layer.bitmap.IsPendingDelayLoad()
                              ? std::string("pending: as its file")
                              : fmt::format("{} tiles of its own, {} solid", tiles.own, tiles.solid)));
    }
}

void WriteLayer(JsonWriter & json, Layer const & layer) {
    auto const number = [&](char const * name, double value) {
        json.Name(name);
        json.Number(value);
    };
    auto const count = [&](char const * name, std::uint64_t value) {
        json.Name(name);
        json.Number(value);
    };
    auto const tiles = CountTiles(*layer.bitmap.GetCore());
    json.BeginObject();
    json.Name("name");
    json.Text(layer.name.GetCharacters());
    count("width", static_cast<std::uint64_t>(layer.bitmap.GetWidth()));
    count("height", static_cast<std::uint64_t>(layer.bitmap.GetHeight()));
    json.Name("format");
    json.Text(GetFormatName(layer.bitmap.GetFormat()));
    number("x", layer.offset.x);
    number("y", layer.offset.y);
    number("opacity", static_cast<double>(layer.opacity));
    json.Name("isPending");
    json.Boolean(layer.bitmap.IsPendingDelayLoad());
    count("ownTiles", tiles.own);
    count("solidTiles", tiles.solid);
    count("pendingTiles", tiles.pending);
    json.EndObject();
}

void WriteInfo(JsonWriter & json, Inspection const & inspection) {
    auto const & [document, info, damaged] = inspection;
    auto const number = [&](char const * name, std::uint64_t value) {
        json.Name(name);
        json.Number(value);
    };
    number("width", static_cast<std::uint64_t>(document.width));
    number("height", static_cast<std::uint64_t>(document.height));
    number("fileBytes", info.fileBytes);
    number("deadBytes", info.deadBytes);
    number("commit", info.commitNumber);
    number("items", info.items.size());
    number("damaged", damaged);
    json.Name("kinds");
    json.BeginObject();
    for (auto const & [type, name] : itemKinds) {
        auto const counts = CountItems(info, type);
        json.Name(name);
        json.BeginObject();
        number("count", counts.count);
        number("bytes", counts.rawBytes);
        number("storedBytes", counts.storedBytes);
        json.EndObject();
    }
    json.EndObject();
    json.Name("layers");
    json.BeginArray();
    for (auto const & layer : document.layers)
        WriteLayer(json, *layer);
    json.EndArray();
}

bool Info(Session & session, DocumentSettings const & settings) {
    if (settings.json)
        return PrintJsonReport(session, {settings.document}, [&](JsonWriter & json, std::string const & path) {
            WriteInfo(json, Inspect(session, path));
        });
    return session.Try(settings.document, [&] { PrintInfo(Inspect(session, settings.document)); });
}
}

bool RunDocument(Session & session, DocumentSettings const & settings) {
    Document::RegisterClasses();
    switch (settings.action) {
    case DocumentAction::Create:
        return Create(session, settings);
    case DocumentAction::Info:
        return Info(session, settings);
    case DocumentAction::Extract:
        return Extract(session, settings);
    case DocumentAction::Fill:
        return Fill(session, settings);
    case DocumentAction::Stamp:
        return Stamp(session, settings);
    case DocumentAction::Flatten:
        return Flatten(session, settings);
    case DocumentAction::Compact:
        return Compact(session, settings);
    case DocumentAction::Verify:
        return Verify(session, settings);
    case DocumentAction::Salvage:
        return Salvage(session, settings);
    }
    return false;
}
}
