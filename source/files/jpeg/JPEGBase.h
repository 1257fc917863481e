#pragma once

#include "colour/ICCProfile.h"
#include "files/DecodedPixels.h"
#include "files/ExportOptions.h"
#include "files/FileModel.h"
#include "files/FileSource.h"
#include "files/RowBands.h"
#include "files/jpeg/JPEGError.h"
#include "kernel/Consolidated.h"
#include "kernel/Counted.h"
#include "kernel/InStream.h"
#include "kernel/OutStream.h"
#include "kernel/RawData.h"
#include "kernel/String.h"
#include "pixel/ChannelParams.h"
#include "pixel/Format.h"
#include "storage/CompressedRasterData.h"

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace Raster {
class JPEGReader;
class JPEGWriter;

/// What the models of JPEG files of all tuples have in common: all but the pixels of the tuple.
///
/// Reading: the header is read when the model is made, the picture by the first accessor, whose thread throws what the
/// stream throws, and `JPEGError`. After that the model lets go of its stream. A picture that doesn't fit the limits or
/// the memory throws nothing: the model has failed then and reads as if it were empty.
///
/// Writing: see `RowWriteAccessor`.
class RASTER_API JPEGBase : public FileModel {
public:
    using ImageResourceBlocks = Kernel::RawDataT<Kernel::Countable, Kernel::AllocatorMalloc>;

    /// The format limits both sides; a larger picture is cut.
    static constexpr int largestSide = 65500;

    ~JPEGBase() override;

    /// Reads a header, from where the stream stands. A null stream gives the size 0. Throws what the stream throws, and
    /// `JPEGError`, unless that happens after the header: then size and DPI are 0.
    void InitialiseForRead(Kernel::Counted<Kernel::InStreamSeekable> stream);
    /// Makes ready to write from where the stream stands. A null stream gives the size 0 and no profile.
    void InitialiseForWrite(Kernel::Counted<Kernel::OutStream> stream, int newWidth, int newHeight,
                            ExportOptions const & options);

    /// Dots per inch; 72 if a file doesn't say. What was asked for, of a file that is written.
    double GetDPI() const { return dpi; }
    /// The embedded one, null if the colour library could make nothing of it; sRGB if there is none.
    Kernel::Consolidated<ICCProfile> GetProfile() const;
    /// Whether the file has no profile, or one with pieces missing.
    bool IsProfileFallback() const { return isProfileFallback; }
    /// How the picture is to be turned to stand upright, 1 to 8 as EXIF has it. The pixels are as they are stored.
    int GetOrientation() const { return orientation; }

    /// What a host stored for itself, byte by byte: null if there is nothing. What is set is written.
    Kernel::Counted<ImageResourceBlocks const> GetImageResourceBlocksData() const { return imageResourceBlocks; }
    void SetImageResourceBlocksData(Kernel::Counted<ImageResourceBlocks const> blocks);

    /// Whether the samples of CMYK are inverted on their way in and out, as is the custom in these files. True at
    /// first.
    void SetIsInvertCMYK(bool invert) { invertCMYK = invert; }

    // What the codec could live with while it decoded. Nothing before that.
    /// The file ended before its end marker: rows at the bottom may be missing, or details everywhere.
    bool EndedEarly() const { return endedEarly.load(std::memory_order_acquire); }
    /// Places where the data was damaged, an early end included.
    unsigned long GetWarningCount() const { return warningCount.load(std::memory_order_acquire); }
    /// The first warning in the codec's words.
    std::string GetWarning() const;

    /// Decodes if nobody has. See `DecodedCursor`.
    DecodedPixels const & Decode(bool * abort) const;
    /// Decodes if nobody has, and keeps nothing: the model has no pixels then. Only one thread may use the model
    /// meanwhile. After an abort the rest of the bands never comes. Throws what an accessor throws, and what `take`
    /// throws.
    /// @return false, with nothing done, if the picture was decoded before and is still here.
    bool DecodeBands(BandCut const & cut, BandTaker const & take, bool * abort);

    /// A flag that stops the writing of a picture also while the codec works on all of it, as it does at the end of a
    /// progressive one: the model has failed then. Not owned; null is none.
    void SetAbort(bool const * abort) { writeAbort = abort; }
    // See `RowWriteAccessor`.
    void BeginEncoding();
    void EncodeRow();
    void FinishEncoding();
    void AbandonEncoding() noexcept;

protected:
    /// @param pixelComponents  bytes of a pixel in the codec's hands: 1 for grey, 3 for RGB, 4 for CMYK.
    explicit JPEGBase(int pixelComponents);

    void InitialiseForRead(FileSource const & source);
    void InitialiseForWrite(char const * path, int newWidth, int newHeight, ExportOptions const & options);
    void InitialiseForWrite(Kernel::Counted<CompressedRasterData> data, int newWidth, int newHeight,
                            ExportOptions const & options);

    bool IsInvertCMYK() const { return invertCMYK; }
    /// Decoded pixels as rows of samples of `format`. A null row is not wanted.
    void TakeRowAs(Format format, unsigned char const * decoded, std::size_t count, void * const * rows) const;
    /// The reverse, into the row that is held. x + count is at most the width.
    void PutRowAs(Format format, int x, std::size_t count, void const * const * rows);
    unsigned char * GetHeldPixel(int x) {
        return heldRow.data() + static_cast<std::size_t>(x) * static_cast<std::size_t>(components);
    }

    static Kernel::StringUtf8 Describe(std::vector<ChannelParams> const & channels);

private:
    void TakeMetadata(JPEGReader const & newReader);
    template<class Action>
    void DecodeOnce(JPEGReader & decodingReader, bool * abort, Action && action) const;
    void StopEncoding(char const * reason);
    void EndStream();

    int const components;
    double dpi = 0;
    bool invertCMYK = true;
    int orientation = 1;
    Kernel::Consolidated<ICCProfile> profile;
    bool isProfileFallback = false;
    Kernel::Counted<ImageResourceBlocks const> imageResourceBlocks;

    mutable std::unique_ptr<JPEGReader> reader; // from the header to the decoding; under lock
    mutable DecodedPixels pixels;               // under lock until they are decoded
    mutable std::atomic<bool> endedEarly{false};
    mutable std::atomic<unsigned long> warningCount{0};
    mutable std::string warning; // under lock

    Kernel::Counted<Kernel::OutStream> outStream;
    bool ownsOutStream = false;
    std::unique_ptr<JPEGWriter> writer; // until the file is finished, or given up
    std::vector<unsigned char> heldRow;
    bool const * writeAbort = nullptr;
};
}
