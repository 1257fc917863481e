#pragma once

#include "files/FileWrapper.h"
#include "files/png/PNG.h"
#include "kernel/String.h"

namespace Raster {
class DynamicPNG;
extern template class RASTER_EXTERN_TEMPLATE DynamicBase<DynamicPNG>;

/// A PNG file in the format that it calls for.
class RASTER_API DynamicPNG : public FileWrapper<DynamicPNG> {
    template<class Tuple, int colourType>
    struct Held {
        using Type = typename Tuple::template Apply<PNG>;
    };
    template<class Tuple>
    struct Held<Tuple, noColourType> {
        using Type = void;
    };
    template<class C1, class C2, class C3, class C4, class C5>
    struct HeldFor {
        using Type = typename Held<ChannelTuple<C1, C2, C3, C4, C5>, FormatToPNGColourType<C1, C2, C3, C4, C5>()>::Type;
    };

public:
    template<class Tuple>
    using TypedOf = typename Tuple::template Apply<HeldFor>::Type;

    DynamicPNG();
    DynamicPNG(DynamicPNG const &);
    DynamicPNG & operator=(DynamicPNG const &);
    ~DynamicPNG() override;

    // For reading. False, with `NoFormat` and a failure, if that is no sound PNG. False and nothing else changed if it
    // can't be opened. What a stream throws comes through, and changes nothing.

    bool Create(char const * path);
    bool Create(Kernel::Counted<CompressedRasterData const> data);
    /// From where the stream stands, which is where it is left.
    bool CreateFromStream(Kernel::Counted<Kernel::InStreamSeekable> stream);

    // For writing `RGBA8`, `RGBA16`, `IA8`, `IA16`, `A8` and `A16`. False, with a failure and nothing else changed, for
    // other formats, and if there is nothing to write to. Sides above 32767 are cut.

    bool Create(char const * path, int width, int height, ExportOptions const & options, Format format);
    bool Create(Kernel::Counted<CompressedRasterData> data, int width, int height, ExportOptions const & options,
                Format format);
    /// The stream is not finished with the file.
    bool CreateToStream(Kernel::Counted<Kernel::OutStream> stream, int width, int height, ExportOptions const & options,
                        Format format);

    // See `PNGBase`; without a file what the types are by default.
    double GetDPI() const;
    Kernel::Consolidated<ICCProfile> GetProfile() const;
    bool IsProfileFallback() const;
    /// 1: the pixels of a PNG are upright.
    int GetOrientation() const { return 1; }

    Kernel::StringUtf8 GetDescription() const { return "DynamicPNG"; }

    static bool IsPNGFile(char const * path) { return PNGBase::IsPNGFile(path); }
    static bool IsPNGFile(Kernel::Counted<CompressedRasterData const> const & data) { return PNGBase::IsPNGFile(data); }

    /// The format in which a bitmap of `format` has to be written; `NoFormat` for a value that is no format.
    static Format GetSupportedFormat(Format format) noexcept;
    static bool IsSupportedFormat(Format format) noexcept;

private:
    bool CreateFromSource(FileSource const & source);
    template<class Target>
    bool CreateForWriting(Target const & target, int width, int height, ExportOptions const & options, Format format);
    bool Refuse(std::string reason);
};
}
