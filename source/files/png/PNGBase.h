#pragma once

#include "colour/ICCProfile.h"
#include "files/DecodedPixels.h"
#include "files/ExportOptions.h"
#include "files/FileModel.h"
#include "files/FileSource.h"
#include "files/RowBands.h"
#include "files/png/PNGError.h"
#include "kernel/Consolidated.h"
#include "kernel/Counted.h"
#include "kernel/InStream.h"
#include "kernel/OutStream.h"
#include "kernel/String.h"
#include "pixel/ChannelParams.h"
#include "pixel/ChannelTuple.h"
#include "pixel/Format.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Raster {
class CompressedRasterData;
struct PNGHeader;

/// What the models of PNG files of all tuples have in common: all but the pixels of the tuple.
///
/// Reading: the header is read when the model is made, the picture by the first accessor. A damaged file throws
/// nothing: the model has failed then, and reads as if it were empty. What the stream throws comes through.
///
/// Writing: see `RowWriteAccessor`. The codec's errors are thrown as `PNGError`, those of the stream as they are.
class RASTER_API PNGBase : public FileModel {
public:
    class BasePixelAccessor;
    class BaseConstPixelAccessor;

    /// Both sides of a file that is written have at most this; a larger picture is cut.
    static constexpr int largestWrittenSide = 32767;

    ~PNGBase() override;

    /// Whether the file, or the bytes, begin as a PNG does: no more than four bytes are looked at.
    static bool IsPNGFile(char const * path);
    static bool IsPNGFile(Kernel::Counted<CompressedRasterData const> const & data);

    /// The format in which a file opens: `RGBA8`, `RGBA16`, `IA8` or `IA16`; `NoFormat` for what is no sound PNG.
    static Format GetFormat(char const * path);
    static Format GetFormat(Kernel::Counted<CompressedRasterData const> data);
    /// From where the stream stands, which is where it is left. Null is `NoFormat`. What the stream throws comes
    /// through.
    static Format GetFormat(Kernel::Counted<Kernel::InStreamSeekable> stream);

    /// Reads a header from where the stream stands, and leaves the stream there. Nobody else may move the stream until
    /// the picture is decoded. Null, or what is no sound PNG, gives the size 0.
    void InitialiseFromStream(Kernel::Counted<Kernel::InStreamSeekable> stream);
    /// Makes ready to write from where the stream stands; the stream is not finished with the file. Copies the options;
    /// their palette has to live until the file is begun.
    void InitialiseFromStream(Kernel::Counted<Kernel::OutStream> stream, int newWidth, int newHeight,
                              ExportOptions const & options);

    /// Dots per inch; 72 if a file doesn't say. What was asked for, of a file that is written.
    double GetDPI() const { return dpi; }
    /// The embedded one, null if the colour library could make nothing of it. Without one: sRGB for 8-bit colour, null
    /// for all else.
    Kernel::Consolidated<ICCProfile> GetProfile() const;
    /// Whether the profile is sRGB because the file has none.
    bool IsProfileFallback() const { return isProfileFallback; }

    /// Whether the pixels of a file that is read have alpha; a transparent colour counts.
    bool HasAlpha() const { return hasAlpha; }
    /// Every pixel that is read has full alpha.
    bool IsOpaque() const { return !hasAlpha; }

    /// Decodes if nobody has. See `DecodedCursor`.
    DecodedPixels const & Decode(bool * abort) const;
    /// Decodes if nobody has, and keeps nothing: the model has no pixels then. Only one thread may use the model
    /// meanwhile. After an abort, and after damage, the rest of the bands never comes. Throws what the stream throws,
    /// and what `take` throws.
    /// @return false, with nothing done, if the picture was decoded before and is still here, and if it is interlaced:
    ///         all of it has to be held then.
    bool DecodeBands(BandCut const & cut, BandTaker const & take, bool * abort);

    // See `RowWriteAccessor`.
    void BeginEncoding();
    void EncodeRow();
    void FinishEncoding();
    void AbandonEncoding() noexcept;

protected:
    /// @param pngColourType, nonAlphaPNGColourType  as which the tuple is written, or `noColourType`.
    PNGBase(TupleLayout const & tupleLayout, int pngColourType, int nonAlphaPNGColourType);

    void InitialiseFromSource(FileSource const & source);
    void InitialiseForWrite(char const * path, int newWidth, int newHeight, ExportOptions const & options);
    void InitialiseForWrite(Kernel::Counted<CompressedRasterData> data, int newWidth, int newHeight,
                            ExportOptions const & options);

    /// Decoded pixels as rows of samples, one for each channel of the tuple. A null row is not wanted.
    void TakeRowAs(unsigned char const * decoded, std::size_t count, void * const * rows) const;
    /// The reverse, into the row that is held. x + count is at most the width.
    void PutRowAs(int x, std::size_t count, void const * const * rows);
    /// How many of the tuple's channels, from the first, a file that is written holds.
    int GetWrittenChannels() const { return writtenChannels; }
    unsigned char * GetHeldPixel(int x) {
        return heldRow.data() + static_cast<std::size_t>(x) * GetWrittenPixelBytes();
    }

    static Kernel::StringUtf8 Describe(std::vector<ChannelParams> const & channels);

private:
    friend class DynamicPNG;

    /// `GetFormat`, with the reason for `NoFormat`. Leaves the stream where it stood.
    static Format FindFormat(Kernel::InStreamSeekable & stream, std::string & why);

    void TakeHeader(PNGHeader & newHeader);
    template<class Action>
    void DecodeOnce(Kernel::InStreamSeekable & stream, Action && action) const;
    std::size_t GetWrittenPixelBytes() const {
        return static_cast<std::size_t>(writtenChannels) * static_cast<std::size_t>(layout.sampleSize);
    }
    template<class Action>
    void Encode(Action && action);
    void EndStream();

    TupleLayout const layout;
    int const colourType, nonAlphaColourType;

    double dpi = 0;
    bool hasAlpha = false;
    bool isProfileFallback = false;
    Kernel::Consolidated<ICCProfile> profile;
    std::unique_ptr<PNGHeader const> header; // null of a file that is written, and of a broken one

    mutable Kernel::Counted<Kernel::InStreamSeekable> inStream; // from the header to the decoding; under lock
    std::uint64_t start = 0;                                    // where in it the PNG begins
    mutable DecodedPixels pixels;                               // under lock until they are decoded

    Kernel::Counted<Kernel::OutStream> outStream; // until encoding has begun, and while it lasts
    bool ownsOutStream = false;
    ExportOptions exportOptions;
    int writtenChannels = 0;
    std::unique_ptr<BasePixelAccessor> encoder; // while a file is written
    std::vector<unsigned char> heldRow;
};

/// The decoded picture of one model, without regard to the tuple. Decodes when it is made, as every const accessor
/// does.
class RASTER_API PNGBase::BaseConstPixelAccessor {
public:
    explicit BaseConstPixelAccessor(PNGBase const & model, bool * abort = nullptr);

    bool HasAlpha() const { return model.hasAlpha; }
    /// 1 or 2; the high byte comes first. 0 of a broken file.
    int GetBytesPerSample() const;
    int GetWidth() const { return model.width; }
    int GetHeight() const { return model.height; }
    /// Empty if the picture could not be decoded.
    DecodedPixels const & GetPixels() const { return pixels; }
    /// The three bytes of a colour in the file's palette; zeros if it has no such colour. Lives as long as the model.
    unsigned char const * LookupPNGPalette(unsigned char index) const;

private:
    PNGBase const & model;
    DecodedPixels const & pixels;
};
}
