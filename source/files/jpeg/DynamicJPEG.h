#pragma once

#include "files/FileWrapper.h"
#include "files/jpeg/JPEG.h"

namespace Raster {
class DynamicJPEG;
extern template class RASTER_EXTERN_TEMPLATE DynamicBase<DynamicJPEG>;

/// The format that a JPEG decodes to, from where the stream stands: `RGBA8`, `IA8`, `CMYKA8`. `NoFormat` for a null
/// stream, for what is no JPEG or one that the codec can't read, and if the stream throws. Moves the stream.
RASTER_API Format GetJPEGFormat(Kernel::Counted<Kernel::InStreamSeekable> stream);

/// A JPEG file whose format is known at run time only.
class RASTER_API DynamicJPEG : public FileWrapper<DynamicJPEG> {
public:
    template<class Tuple>
    using TypedOf = typename Tuple::template Apply<JPEG>;

    DynamicJPEG() = default;

    // To read. False, with everything as it was, if there is nothing to read from. A file that can't be understood
    // gives true, `NoFormat` and the size 0. Reads the header; throws what the stream throws after that.
    bool Create(char const * path);
    bool Create(Kernel::Counted<CompressedRasterData const> data);
    /// From where the stream stands. It must not be used for anything else until the picture is decoded.
    bool CreateFromStream(Kernel::Counted<Kernel::InStreamSeekable> stream);

    // To write. False, with everything as it was, if there is nothing to write to, and for a format other than `RGBA8`,
    // `IA8`, `CMYKA8`. Both sides are cut to 65500.
    bool Create(char const * path, int width, int height, ExportOptions const & options, Format format);
    bool Create(Kernel::Counted<CompressedRasterData> data, int width, int height, ExportOptions const & options,
                Format format);
    bool CreateToStream(Kernel::Counted<Kernel::OutStream> stream, int width, int height, ExportOptions const & options,
                        Format format);

    /// Whether the file begins like a JPEG.
    static bool IsJPEGFile(char const * path);
    static bool IsJPEGFile(Kernel::Counted<CompressedRasterData const> data);

    // See `JPEGBase`. Without a file: 0, null, false, 1.
    double GetDPI() const;
    Kernel::Consolidated<ICCProfile> GetProfile() const;
    bool IsProfileFallback() const;
    int GetOrientation() const;
    void SetIsInvertCMYK(bool invert);
    bool EndedEarly() const;
    unsigned long GetWarningCount() const;
    std::string GetWarning() const;

    Kernel::StringUtf8 GetDescription() const { return "DynamicJPEG"; }

    /// The format in which a picture of that format has to be written; `RGBA8` for what is none.
    static Format GetSupportedFormat(Format format);
    static bool IsSupportedFormat(Format format);

private:
    bool CreateToRead(FileSource const & source);
    template<class Target>
    bool CreateToWrite(Target const & target, int width, int height, ExportOptions const & options, Format format);
    bool Refuse(std::string why);
};
}
