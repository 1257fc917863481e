#pragma once

#include "colour/ICCProfile.h"
#include "files/CameraParams.h"
#include "files/ExportOptions.h"
#include "kernel/Consolidated.h"
#include "kernel/Countable.h"
#include "kernel/Counted.h"
#include "kernel/String.h"
#include "pixel/Format.h"
#include "pixel/TransferParams.h"
#include "pixel/Vocabulary.h"

#include <functional>
#include <string>

namespace Kernel {
class OutStreamSeekable;
}

namespace Raster {
class CompressedRasterData;
class DynamicBitmap;
class FileSource;
struct FileFormat;
struct FileReadOptions;
struct FileTarget;

/// A picture in a file of any type: finds out what the file is when it reads, and writes the types that can be written.
/// Opening reads the header only; pixels are decoded when they are first drawn. An empty one, and one that failed to
/// open, answers `NoFormat`, the size 0 and so on. Copies share the file.
///
/// Threads: none of its own. A file that is open for reading may be read from any number of threads at once; one that
/// is written belongs to one.
class RASTER_API DynamicFile : public Kernel::Countable {
public:
    DynamicFile();
    DynamicFile(DynamicFile const &);
    DynamicFile & operator=(DynamicFile const &);
    ~DynamicFile() override;

    // For reading. False if the file can't be read, or is of no known type: `GetFailure` tells, and what was open
    // before stays open. A file of a known type that is broken gives true, `NoFormat`, the size 0, and a failure.

    /// @param path  UTF-8, taken as it is. Copied.
    /// @param rawFirst, rawSecond  for camera files; nothing to other types
    /// @param convertEXR  for OpenEXR; nothing to other types
    bool Create(char const * path, bool rawFirst = false, bool rawSecond = false, bool convertEXR = false);
    /// Of bytes in memory, which stay as they are while the file is used. Null or empty gives false.
    bool Create(Kernel::Counted<CompressedRasterData const> data, bool rawFirst = false, bool rawSecond = false);

    // For writing. False, with nothing changed but the failure, for types that can't be written so, for a format that
    // the type can't hold (see `GetSupportedFormat`), and where there is nothing to write to. Sizes beyond what a type
    // can hold are cut to it. The options are copied, their palette isn't.

    /// Creates the file or replaces the one that is there.
    bool Create(char const * path, int width, int height, ExportOptions const & options, FileType type, Format format,
                bool convertEXR = false);
    /// PNG, TIFF and HD Photo.
    bool Create(Kernel::Counted<CompressedRasterData> data, int width, int height, ExportOptions const & options,
                FileType type, Format format);
    /// JPEG, PNG, TIFF and HD Photo, from the stream's position on. The stream is not finished with the file.
    bool Create(Kernel::Counted<Kernel::OutStreamSeekable> stream, int width, int height, ExportOptions const & options,
                FileType type, Format format, bool convertEXR = false);

    FileType GetFileType() const { return type; } ///< Of an empty one: without meaning.
    Format GetFormat() const;                     ///< In which the pixels come or go.
    int GetWidth() const;                         ///< Pixels.
    int GetHeight() const;

    /// Dots per inch. Of JPEG, PNG, TIFF and BMP as the file says, with a default of the type if it doesn't; of all
    /// others 96; of an empty file 0.
    double GetDPI() const;
    /// What the colours mean, as the file says, or by default; null if neither tells.
    Kernel::Consolidated<ICCProfile> GetProfile() const;
    /// Whether the profile is a default that is put in place of one which the file lacks.
    bool IsProfileFallback() const;
    /// Of a camera file; null for others.
    Kernel::Counted<CameraParams const> GetCameraParams() const;
    /// How the picture wants to be turned for viewing, 1 to 8 by EXIF: pixels come as they are stored. 1 is upright.
    int GetOrientation() const;

    /// Whether opening, reading or writing has gone wrong for good. Pixels that are lost show as zeros.
    bool HasFailed() const;
    /// What went wrong last, in words for the user; empty if nothing did.
    std::string GetFailure() const;
    /// Of a file whose pixels were drawn: whether it ended before its picture did, in a type where that is no failure.
    /// What is missing shows as the codec left it.
    bool EndedEarly() const;
    /// Of a file whose pixels were drawn: damage that the codec could live with, in its words; empty if there was none.
    std::string GetWarning() const;

    Kernel::StringUtf8 GetDescription() const { return "DynamicFile"; }

    /// The format in which a bitmap of `format` has to be written to this type; `NoFormat` if there is none.
    static Format GetSupportedFormat(FileType type, Format format) noexcept;
    /// Whether that is the bitmap's own.
    static bool IsSupportedFormat(FileType type, Format format) noexcept;

private:
    friend RASTER_API void Draw(DynamicBitmap & dest, DynamicFile const & source, TransferParams const * params,
                                float const * opacity, int dx, int dy);
    friend RASTER_API void DrawOnce(DynamicBitmap & dest, DynamicFile & source, TransferParams const * params,
                                    float const * opacity, int dx, int dy);
    friend RASTER_API void VisitBands(DynamicFile & source, int bandHeight, TransferParams const * params,
                                      std::function<void(DynamicBitmap & band, int top)> const & visit);
    friend RASTER_API bool Feed(DynamicFile & dest, DynamicBitmap const & source, TransferParams const * params);

    bool Fail(std::string reason);
    bool CreateForReading(FileSource const & source, FileReadOptions const & options);
    bool CreateForWriting(FileTarget const & target, int width, int height, ExportOptions const & options,
                          FileType newType, Format format);
    bool Commit(FileFormat const & newFormat, Kernel::Counted<Kernel::Countable> newWrapper);

    FileFormat const * fileFormat = nullptr; // how to ask the wrapper
    Kernel::Counted<Kernel::Countable> wrapper;
    FileType type = FileTypeJPEG;
    std::string openFailure;
};
}
