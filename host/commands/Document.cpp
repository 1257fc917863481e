#include "host/Document.h"

#include "files/DynamicFile.h"
#include "host/Colours.h"
#include "host/Damage.h"
#include "host/Failure.h"
#include "host/Formats.h"
#include "host/LayerPicture.h"
#include "host/OutputFile.h"
#include "host/Picture.h"
#include "host/PictureWriter.h"
#include "host/Signals.h"
#include "host/Text.h"
#include "host/commands/Commands.h"
#include "host/commands/DocumentCommands.h"
#include "kernel/AffineTransform.h"
#include "pixel/transfer/BitmapTransfer.h"
#include "pixel/transfer/Fill.h"
#include "storage/CompressedRasterData.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <system_error>
#include <utility>

namespace Host {
Kernel::ArchiveTarget GetTarget(bool noClobber) {
    return noClobber ? Kernel::ArchiveTarget::OnlyFree : Kernel::ArchiveTarget::Any;
}

void CheckTarget(std::string const & path, bool noClobber) {
    OutputFile::Check(path, noClobber ? Existing::Keep : Existing::Replace);
    std::error_code error;
    bool const isFile = std::filesystem::is_regular_file(path, error);
    bool const isOther = !isFile && std::filesystem::exists(path, error);
    if (isOther || (isFile && std::filesystem::file_size(path, error) != 0 && !Document::IsDocument(path)))
        throw Failure("is there already and is no document; name the new document first");
}

namespace {
using Raster::CompressedRasterData;

/// Opens a picture's header: what is no picture fails here.
SourceFile OpenPicture(Session & session, std::string const & path, ReadSettings const & reading = {}) {
    try {
        return SourceFile(session, path, reading);
    } catch (Failure const &) {
        if (path != standardStream && Document::IsDocument(path))
            throw Failure("is a document; `raster document extract` makes pictures of its layers");
        throw;
    }
}

Kernel::Counted<Layer> Place(Session & session, std::string const & path) {
    auto const source = OpenPicture(session, path);
    auto data = source.GetStandardInput();
    if (!data) {
        data = Kernel::MakeCounted<CompressedRasterData>();
        if (!data->SetFromFile(path.c_str()))
            throw Failure("can't be read");
    }
    auto const & file = source.GetFile();
    if (file.GetOrientation() != 1)
        session.GetMessages().Warn(path,
                                   fmt::format("the file says how to turn the picture ({}), and the layer shows it "
                                               "as it is stored; `raster convert --auto-orient` turns it",
                                               file.GetOrientation()));
    auto const placed = Kernel::DelayLoadHolder::Create(CompressedRasterData::GetTypeFileStoreItemType(), data);
    auto layer = Document::MakeLayer(placed, file.GetWidth(), file.GetHeight(), file.GetFormat(),
                                     file.IsProfileFallback() ? nullptr : file.GetProfile());
    layer->name = std::filesystem::path(path).filename().string().c_str();
    layer->dpi = file.GetDPI();
    return layer;
}

/// That no document is replaced by a picture: `extract DOC 1 DOC` would leave one layer of all.
void CheckPictureTarget(std::string const & path) {
    std::error_code error;
    if (path != standardStream && std::filesystem::is_regular_file(path, error) && Document::IsDocument(path))
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

/// What is painted on a damaged tile would be all that is saved of it.
void CheckForPainting(Layer const & layer, Kernel::RectT<int> const & area, DocumentSettings const & settings) {
    if (settings.keepDamaged)
        return;
    if (auto const damaged = CountDamagedTiles(layer.bitmap, area))
        throw Failure(fmt::format("{} damaged there, and painting would lose what may still be saved of it; "
                                  "see `raster document verify`, or take --keep-damaged",
                                  SayHowManyTiles(damaged)));
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
        LayerPicture const picture(session, layer, settings.document);
        picture.Load(settings.reading.strict, progress);
        picture.TellOfDamage();
        writer.CheckSize(layer.bitmap.GetWidth(), layer.bitmap.GetHeight());
        writer.Write(picture.MakeToBeWritten(settings.reading), progress);
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
        LayerPicture(session, layer, settings.document).Load(/*isStrict=*/false, progress);
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
        auto stamp = Blaming(settings.files.front(), [&] {
            return OpenPicture(session, settings.files.front(), settings.reading).Decode(/*level=*/0, progress);
        });
        stamp.orientationHelp = "`raster convert --auto-orient` turns it";
        auto const area = GetStampedArea(stamp.bitmap, settings);
        if (!IsOnLayer(session, layer, area, settings))
            return;
        progress.BeginStep(0.2);
        LayerPicture const picture(session, layer, settings.document);
        picture.Load(settings.reading.strict, progress);
        CheckForPainting(layer, area, settings);
        picture.TellOfLostProfile();
        if (stamp.orientation != 1)
            session.GetMessages().Warn(stamp.name, TellOfTurning(stamp));
        auto const matched = MatchColours(session, stamp, picture.Make(settings.reading), progress);
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
        auto result = LayerPicture(session, bottom, settings.document).MakeToBeWritten(settings.reading);
        result.bitmap = DynamicBitmap(document.width, document.height, bottom.bitmap.GetFormat(),
                                      Raster::MipmapModeNone, Raster::HardwareCachePolicy::Default);
        Progress progress(session.GetMessages(), settings.document);
        for (std::size_t i = 0; i < document.layers.size(); ++i) {
            auto const & layer = document.layers[i];
            progress.BeginStep(0.8 / static_cast<double>(document.layers.size()));
            LayerPicture const picture(session, *layer, fmt::format("{}, layer {}", settings.document, i + 1));
            picture.Load(settings.reading.strict, progress);
            picture.TellOfDamage();
            auto const matched = MatchColours(session, picture.Make(settings.reading), result, progress);
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

}

bool RunDocument(Session & session, DocumentSettings const & settings) {
    Document::RegisterClasses();
    switch (settings.action) {
    case DocumentAction::Create:
        return Create(session, settings);
    case DocumentAction::Info:
        return ShowDocument(session, settings);
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
        return VerifyDocument(session, settings);
    case DocumentAction::Salvage:
        return SalvageDocument(session, settings);
    }
    return false;
}
}
