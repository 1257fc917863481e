/// The table of file types: how each of them takes part in `DynamicFile`.
#pragma once

#include "colour/ICCProfile.h"
#include "files/ExportOptions.h"
#include "files/FileSource.h"
#include "files/FileTransfer.h"
#include "kernel/Consolidated.h"
#include "kernel/Counted.h"
#include "kernel/OutStream.h"
#include "pixel/Vocabulary.h"
#include "storage/CompressedRasterData.h"

#include <string>

namespace Raster {
/// What a caller of `DynamicFile` asks of particular formats when it reads.
struct FileReadOptions {
    bool rawFirst = false, rawSecond = false; ///< of camera files
    bool convertEXR = false;
};

/// Where and how a file is written: exactly one of the first three.
struct FileTarget {
    char const * path = nullptr;
    Kernel::Counted<CompressedRasterData> data;
    Kernel::Counted<Kernel::OutStreamSeekable> stream;
    bool convertEXR = false;
};

/// One type of file. The wrapper is that of the type, as `open` or `create` gave it.
struct FileFormat {
    using Wrapper = Kernel::Counted<Kernel::Countable>;

    FileType type;
    /// Looks at the start of the file. Throws nothing for what it finds there.
    bool (*isFile)(FileSource const & source);
    /// Null if it is not of this type after all: the search goes on.
    Wrapper (*open)(FileSource const & source, FileReadOptions const & options);
    /// Null, with a reason, if this can't be written.
    Wrapper (*create)(FileTarget const & target, int width, int height, ExportOptions const & options, Format format,
                      std::string & why);

    Format (*getFormat)(Kernel::Countable const & wrapper);
    int (*getWidth)(Kernel::Countable const & wrapper);
    int (*getHeight)(Kernel::Countable const & wrapper);
    double (*getDPI)(Kernel::Countable const & wrapper);                               ///< null: the type has none
    Kernel::Consolidated<ICCProfile> (*getProfile)(Kernel::Countable const & wrapper); ///< null: the type has none
    bool (*isProfileFallback)(Kernel::Countable const & wrapper);                      ///< null: never
    int (*getOrientation)(Kernel::Countable const & wrapper);                          ///< null: always 1
    bool (*hasFailed)(Kernel::Countable const & wrapper);
    std::string (*getFailure)(Kernel::Countable const & wrapper);

    void (*draw)(DynamicBitmap & dest, Kernel::Countable const & wrapper, TransferParams const *, float const * opacity,
                 int dx, int dy);
    bool (*feed)(Kernel::Countable & wrapper, DynamicBitmap const & source, TransferParams const *);
    /// See `FileTransfer::TakeBands`.
    bool (*takeBands)(Kernel::Countable & wrapper, BandCut const & cut, RowTaker const & take, bool * abort);

    bool (*endedEarly)(Kernel::Countable const & wrapper);        ///< null: never, that is a failure
    std::string (*getWarning)(Kernel::Countable const & wrapper); ///< null: the type has none
};

/// By type; null for types that the library can't handle.
RASTER_API FileFormat const * FindFileFormat(FileType type) noexcept;
/// Takes the format into the table, for a type that lies above this module. At start, before any file is opened.
/// @param format  lives as long as the process
RASTER_API void RegisterFileFormat(FileFormat const & format) noexcept;

/// The types in the order in which a file is tried.
inline constexpr FileType fileDetectionOrder[] = {
    FileTypeJPEG,     FileTypePNG, FileTypeRAW,     FileTypeHDPhoto, FileTypeWEBP, FileTypeTIFF, FileTypeGIF,
    FileTypeJPEG2000, FileTypeBMP, FileTypeOpenEXR, FileTypeHDR,     FileTypeTGA,  FileTypeHEIF,
};

/// The first of the formats in that order that `visit` answers true for; null if none does.
template<class Visit>
FileFormat const * FindFileFormatIf(Visit && visit) {
    for (FileType const type : fileDetectionOrder)
        if (auto const * const format = FindFileFormat(type); format && visit(*format))
            return format;
    return nullptr;
}

/// The entries of the table for a wrapper class, as far as it has the members.
template<class T>
class FileFormatOf {
public:
    /// Everything but `type`, `isFile` and what the type is not asked for.
    static constexpr FileFormat Make(FileType type, bool (*isFile)(FileSource const &)) {
        return {type,    isFile,  &Open,      &Create,     &GetFormat, &GetWidth, &GetHeight, nullptr, nullptr,
                nullptr, nullptr, &HasFailed, &GetFailure, &Draw,      &Feed,     &TakeBands, nullptr, nullptr};
    }
    static double GetDPI(Kernel::Countable const & wrapper) { return Of(wrapper).GetDPI(); }
    static Kernel::Consolidated<ICCProfile> GetProfile(Kernel::Countable const & wrapper) {
        return Of(wrapper).GetProfile();
    }
    static bool IsProfileFallback(Kernel::Countable const & wrapper) { return Of(wrapper).IsProfileFallback(); }
    static int GetOrientation(Kernel::Countable const & wrapper) { return Of(wrapper).GetOrientation(); }
    static bool EndedEarly(Kernel::Countable const & wrapper) { return Of(wrapper).EndedEarly(); }
    static std::string GetWarning(Kernel::Countable const & wrapper) { return Of(wrapper).GetWarning(); }

private:
    static T const & Of(Kernel::Countable const & wrapper) { return static_cast<T const &>(wrapper); }

    static FileFormat::Wrapper Open(FileSource const & source, FileReadOptions const &) {
        auto wrapper = Kernel::MakeCounted<T>();
        if (source.GetData())
            wrapper->Create(source.GetData());
        else
            wrapper->Create(source.GetPath());
        return wrapper;
    }
    static FileFormat::Wrapper Create(FileTarget const & target, int width, int height, ExportOptions const & options,
                                      Format format, std::string & why) {
        auto wrapper = Kernel::MakeCounted<T>();
        CreateOn(*wrapper, target, width, height, options, format);
        if (wrapper->GetWidth() > 0 && wrapper->GetHeight() > 0 && !wrapper->HasFailed())
            return wrapper;
        why = wrapper->GetFailure();
        return nullptr;
    }
    // Some of these return nothing: whether a model came of it is what counts.
    static void CreateOn(T & wrapper, FileTarget const & target, int width, int height, ExportOptions const & options,
                         Format format) {
        if (target.stream) {
            if constexpr (requires { wrapper.CreateToStream(target.stream, width, height, options, format); })
                wrapper.CreateToStream(target.stream, width, height, options, format);
        } else if (target.data) {
            if constexpr (requires { wrapper.Create(target.data, width, height, options, format); })
                wrapper.Create(target.data, width, height, options, format);
        } else if constexpr (requires { wrapper.Create(target.path, width, height, options, format); })
            wrapper.Create(target.path, width, height, options, format);
    }

    static Format GetFormat(Kernel::Countable const & wrapper) { return Of(wrapper).GetFormat(); }
    static int GetWidth(Kernel::Countable const & wrapper) { return Of(wrapper).GetWidth(); }
    static int GetHeight(Kernel::Countable const & wrapper) { return Of(wrapper).GetHeight(); }
    static bool HasFailed(Kernel::Countable const & wrapper) { return Of(wrapper).HasFailed(); }
    static std::string GetFailure(Kernel::Countable const & wrapper) { return Of(wrapper).GetFailure(); }
    static void Draw(DynamicBitmap & dest, Kernel::Countable const & wrapper, TransferParams const * params,
                     float const * opacity, int dx, int dy) {
        Raster::Draw(dest, Of(wrapper), params, opacity, dx, dy);
    }
    static bool Feed(Kernel::Countable & wrapper, DynamicBitmap const & source, TransferParams const * params) {
        return Raster::Feed(static_cast<T &>(wrapper), source, params);
    }
    static bool TakeBands(Kernel::Countable & wrapper, BandCut const & cut, RowTaker const & take, bool * abort) {
        return FileTransfer::TakeBands(static_cast<T &>(wrapper), cut, take, abort);
    }
};
}
