#include "host/Document.h"

#include "files/DynamicFile.h"
#include "host/Failure.h"
#include "host/Formats.h"
#include "host/JsonWriter.h"
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
#include <cstdio>
#include <filesystem>

namespace Host {
namespace {
using Raster::CompressedRasterData;

void Print(std::string const & text) { std::fputs(text.c_str(), stdout); }

/// Progress of work that goes through a document.
void ShowFraction(void * context, double fraction) { static_cast<Progress *>(context)->Show(fraction); }

Kernel::Counted<Layer> Place(Session & session, std::string const & path) {
    SourceFile const source(session, path, {}); // opens the header: what is no picture fails here
    auto const data = Kernel::MakeCounted<CompressedRasterData>();
    if (!data->SetFromFile(path.c_str()))
        throw Failure("can't be read");
    auto const & file = source.GetFile();
    auto layer = Kernel::MakeCounted<Layer>();
    layer->name = std::filesystem::path(path).filename().string().c_str();
    layer->dpi = file.GetDPI();
    if (!file.IsProfileFallback())
        layer->profile = file.GetProfile();
    layer->placedFile = Kernel::DelayLoadHolder::Create(CompressedRasterData::GetTypeFileStoreItemType(), data);
    layer->bitmap.Create(file.GetWidth(), file.GetHeight(), file.GetFormat(), Raster::MipmapModeOnDemand,
                         Raster::HardwareCachePolicy::Default);
    if (!layer->bitmap.GetCore())
        throw Failure("is larger than a layer can be");
    layer->bitmap.GetCore()->SetPendingBacking(layer->placedFile);
    layer->bitmap.SetBackingData(layer->placedFile, layer->profile);
    return layer;
}

bool Create(Session & session, DocumentSettings const & settings) {
    return session.Try(settings.document, [&] {
        if (settings.noClobber && std::filesystem::exists(settings.document))
            throw Failure("is there already; leave out --no-clobber to replace it");
        auto document = Document::Create(settings.document);
        for (auto const & path : settings.files) {
            Signals::ThrowIfAborted();
            auto const layer = Blaming(path, [&] { return Place(session, path); });
            document.width = std::max(document.width, layer->bitmap.GetWidth());
            document.height = std::max(document.height, layer->bitmap.GetHeight());
            document.layers.push_back(layer);
        }
        document.Save({});
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
        auto document = Document::Open(settings.document);
        auto const & layer = document.GetLayer(settings.layer);
        if (settings.original)
            return Blaming(settings.out, [&] { ExtractOriginal(layer, settings); });
        PictureWriter writer(session, settings.out, settings.writing, {});
        Progress progress(session.GetMessages(), settings.document);
        progress.BeginStep(0.5);
        LoadPixels(layer, progress);
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
        auto & layer = document.GetLayer(settings.layer);
        Progress progress(session.GetMessages(), settings.document);
        progress.BeginStep(0.8);
        LoadPixels(layer, progress);
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

bool Stamp(Session & session, DocumentSettings const & settings) {
    return session.Try(settings.document, [&] {
        session.PrepareForPixels();
        auto document = Document::Open(settings.document);
        auto & layer = document.GetLayer(settings.layer);
        Progress progress(session.GetMessages(), settings.document);
        progress.BeginStep(0.4);
        auto const stamp = Blaming(settings.files.front(), [&] {
            return SourceFile(session, settings.files.front(), settings.reading)
                .Decode(Raster::MipmapModeNone, progress);
        });
        progress.BeginStep(0.2);
        LoadPixels(layer, progress);
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
        document.Save({Kernel::ArchiveSaveMode::Compact, settings.keepDamaged});
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
        throw Failure(Document::WithoutPath(error.what(), path));
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

bool Salvage(Session & session, DocumentSettings const & settings) {
    return session.Try(settings.document, [&] {
        if (settings.writing.noClobber && std::filesystem::exists(settings.out))
            throw Failure("the document to write is there already");
        Progress progress(session.GetMessages(), settings.document);
        progress.BeginStep(1);
        try {
            auto const saved = Kernel::SalvageArchive(settings.document, settings.out, Signals::GetAbortFlag(),
                                                      ShowFraction, &progress);
            session.GetMessages().Note(settings.document,
                                       fmt::format("{} items saved, {}; {} lost{}", saved.itemsSaved,
                                                   FormatBytes(saved.bytesSaved), saved.itemsLost,
                                                   saved.hasScanned ? "; no list of contents was whole" : ""));
        } catch (Kernel::ArchiveError const & error) {
            Signals::ThrowIfAborted();
            throw Failure(Document::WithoutPath(error.what(), settings.document));
        }
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

void PrintInfo(Document const & document, Kernel::ArchiveInfo const & info, std::size_t damaged) {
    Print(fmt::format("{}\n  canvas       {} x {} pixels\n  file         {}, of which {} dead, commit {}\n"
                      "  items        {}, {} damaged\n",
                      MakePrintable(document.GetPath()), document.width, document.height, FormatBytes(info.fileBytes),
                      FormatBytes(info.deadBytes), info.commitNumber, info.items.size(), damaged));
    for (std::size_t i = 0; i < document.layers.size(); ++i) {
        auto const & layer = *document.layers[i];
        auto const tiles = CountTiles(*layer.bitmap.GetCore());
        Print(fmt::format("  layer {:<6} {} ({} x {} {}, at {},{}, opacity {:g}), {}\n", i + 1,
                          MakePrintable(layer.name.GetCharacters()), layer.bitmap.GetWidth(), layer.bitmap.GetHeight(),
                          GetFormatName(layer.bitmap.GetFormat()), layer.offset.x, layer.offset.y, layer.opacity,
                          layer.bitmap.IsPendingDelayLoad()
                              ? std::string("as its file")
                              : fmt::format("{} tiles of its own, {} solid", tiles.own, tiles.solid)));
    }
}

void WriteInfo(JsonWriter & json, Document const & document, Kernel::ArchiveInfo const & info, std::size_t damaged) {
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
    json.Name("layers");
    json.BeginArray();
    for (auto const & layer : document.layers) {
        auto const tiles = CountTiles(*layer->bitmap.GetCore());
        json.BeginObject();
        json.Name("name");
        json.Text(layer->name.GetCharacters());
        number("width", static_cast<std::uint64_t>(layer->bitmap.GetWidth()));
        number("height", static_cast<std::uint64_t>(layer->bitmap.GetHeight()));
        json.Name("format");
        json.Text(GetFormatName(layer->bitmap.GetFormat()));
        json.Name("x");
        json.Number(static_cast<double>(layer->offset.x));
        json.Name("y");
        json.Number(static_cast<double>(layer->offset.y));
        json.Name("opacity");
        json.Number(static_cast<double>(layer->opacity));
        json.Name("isPending");
        json.Boolean(layer->bitmap.IsPendingDelayLoad());
        number("ownTiles", tiles.own);
        number("solidTiles", tiles.solid);
        number("pendingTiles", tiles.pending);
        json.EndObject();
    }
    json.EndArray();
}

bool Info(Session & session, DocumentSettings const & settings) {
    JsonWriter json;
    json.BeginObject();
    json.Name("version");
    json.Number(std::uint64_t(1));
    json.Name("files");
    json.BeginArray();
    json.BeginObject();
    json.Name("file");
    json.Text(settings.document);
    std::string error;
    bool const isDone = session.Try(settings.document, [&] {
        try {
            auto const report = VerifyWithProgress(session, settings.document);
            auto const document = Document::Open(settings.document);
            auto const damaged = static_cast<std::size_t>(
                std::count_if(report.problems.begin(), report.problems.end(),
                              [](Kernel::ArchiveProblem const & problem) { return problem.isInUse; }));
            auto const info = document.GetArchive().GetInfo();
            if (settings.json)
                WriteInfo(json, document, info, damaged);
            else
                PrintInfo(document, info, damaged);
        } catch (std::exception const & failure) {
            error = failure.what();
            throw;
        }
    });
    if (!isDone) {
        json.Name("error");
        json.Text(error);
    }
    json.EndObject();
    json.EndArray();
    json.EndObject();
    if (settings.json)
        Print(json.GetText());
    return isDone;
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
