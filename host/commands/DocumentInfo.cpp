#include "host/Damage.h"
#include "host/Document.h"
#include "host/Formats.h"
#include "host/JsonReport.h"
#include "host/Text.h"
#include "host/commands/DocumentCommands.h"
#include "storage/CompressedRasterData.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <utility>

namespace Host {
namespace {
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
        Print(fmt::format("  layer {:<6} {} ({} x {} {}, at {},{}, opacity {:g}), {}{}\n", i + 1,
                          MakePrintable(layer.name.GetCharacters()), layer.bitmap.GetWidth(), layer.bitmap.GetHeight(),
                          GetFormatName(layer.bitmap.GetFormat()), layer.offset.x, layer.offset.y, layer.opacity,
                          layer.bitmap.IsPendingDelayLoad()
                              ? std::string("pending: as its file")
                              : fmt::format("{} tiles of its own, {} solid", tiles.own, tiles.solid),
                          layer.unreadProfile ? ", its profile missing or damaged" : ""));
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
    json.Name("isProfileLost");
    json.Boolean(static_cast<bool>(layer.unreadProfile));
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

}

bool ShowDocument(Session & session, DocumentSettings const & settings) {
    if (settings.json)
        return PrintJsonReport(session, {settings.document}, [&](JsonWriter & json, std::string const & path) {
            WriteInfo(json, Inspect(session, path));
        });
    return session.Try(settings.document, [&] { PrintInfo(Inspect(session, settings.document)); });
}
}
