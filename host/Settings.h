/// What was asked for on the command line, as plain values. Names are those of the options.
#pragma once

#include "colour/ICCManager.h"
#include "kernel/Rect.h"
#include "pixel/Format.h"
#include "pixel/Vocabulary.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Host {
/// For every command.
struct GlobalSettings {
    std::optional<std::uint64_t> memoryMebibytes;
    std::optional<std::uint64_t> decodeLimitMebibytes;
    std::string backstore; ///< a directory; empty for the default
    unsigned threads = 0;  ///< 0 is one for each processor
    bool verbose = false, quiet = false, stats = false;
};

struct InfoSettings {
    std::vector<std::string> files;
    bool json = false;
};

/// For the commands that read a picture.
struct ReadSettings {
    bool strict = false;
    std::string assumeProfile; ///< path or name; empty for none
};

/// 8 bits, sRGB.
using Colour = std::array<std::uint8_t, 3>;

/// For the commands that write a picture.
struct WriteSettings {
    std::optional<Raster::FileType> type; ///< nothing: by the extension
    unsigned quality = 90;
    std::optional<double> dpi; ///< nothing: that of the source
    bool progressive = false, stripAlpha = false, noClobber = false, force = false;
    Colour background = {255, 255, 255};
};

/// What becomes of colours.
struct ColourSettings {
    std::optional<Raster::Format> format;
    std::string profile; ///< path or name; empty for none
    Raster::Intent intent = Raster::Intent::Perceptual;
    bool blackPointCompensation = false;
};

struct ConvertSettings {
    std::string in, out;
    bool autoOrient = false;
    ReadSettings reading;
    ColourSettings colours;
    WriteSettings writing;
};

struct ResizeSettings {
    std::string in, out;
    std::optional<int> width, height;
    std::optional<double> scale;
    bool stretch = false, autoOrient = false;
    ReadSettings reading;
    WriteSettings writing;
};

struct ThumbnailSettings {
    std::vector<std::string> in;
    int size = 0;
    std::string folder;
    ReadSettings reading;
    unsigned quality = 90;
    bool noClobber = false;
};

struct CompositeSettings {
    std::string base, over, out;
    double x = 0, y = 0, rotateDegrees = 0, scale = 1, opacity = 1;
    bool autoOrient = false;
    ReadSettings reading;
    WriteSettings writing;
};

struct ProfileSettings {
    bool list = false; ///< else show
    std::string file;
};

enum class DocumentAction { Create, Info, Extract, Fill, Stamp, Flatten, Compact, Verify, Salvage };

struct DocumentSettings {
    DocumentAction action = DocumentAction::Info;
    std::string document;
    std::vector<std::string> files; ///< that are placed
    std::string out;
    int layer = 1; ///< counted from 1
    Kernel::RectT<int> rect{};
    Colour colour{};
    double x = 0, y = 0, opacity = 1;
    bool original = false, keepDamaged = false, noClobber = false, json = false;
    ReadSettings reading;
    WriteSettings writing;
};
}
