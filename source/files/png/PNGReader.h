/// Reading through libpng.
#pragma once

#include "files/DecodedPixels.h"
#include "files/RowBands.h"
#include "files/png/PNGHeader.h"
#include "files/png/PNGSession.h"
#include "kernel/InStream.h"

#include <cstdint>
#include <stdexcept>

namespace Raster {
/// The file is no PNG that can be read, or is damaged. The text is for the user.
class PNGReadError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Reads one PNG from a stream, once. All members throw `PNGReadError`, `ImageLimitError`, std::bad_alloc, and what the
/// stream throws.
class PNGReader : private PNGSession {
public:
    /// @param source  at the start of the PNG; outlives the reader.
    explicit PNGReader(Kernel::InStream & source);
    ~PNGReader();

    /// Only in which format the file opens; `NoFormat` never.
    Format ReadFormat();

    /// Instead of `ReadFormat`: everything before the pixels.
    PNGHeader ReadHeader();

    /// Instead of these: all pixels of a file that had this header a while ago.
    /// @param abort  polled once per row; if it is set the rows that are left stay zero. May be null.
    DecodedPixels ReadPixels(PNGHeader const & expected, bool const * abort);
    /// The same, in bands that are not kept, of a file that isn't interlaced. The rows after an abort never come.
    /// @return what `take` threw
    std::exception_ptr ReadBands(PNGHeader const & expected, BandCut const & cut, BandTaker const & take,
                                 bool const * abort);

private:
    friend class PNGSession;

    static void OnRead(png_structp png, png_bytep dest, std::size_t size);
    char const * Read(unsigned char * dest, std::size_t size) noexcept;

    static void ConfigureStep(PNGReader & reader);
    static void ReadInfoStep(PNGReader & reader);
    static void StartRowsStep(PNGReader & reader);
    static void ReadRowsStep(PNGReader & reader);
    void RunOrThrow(void (*step)(PNGReader &));
    void Configure(std::uint32_t widestAllowed, std::uint32_t highestAllowed, int firstSkipped);

    void ReadUpToPixels(int firstSkipped);
    void Prepare(PNGHeader const & expected);
    bool ReadRows(DecodedPixels & pixels, int count);
    PNGHeader GetHeader() const;
    double GetDPI() const;
    std::optional<std::vector<std::uint8_t>> GetProfile() const;
    PNGHeader::Palette GetPalette() const;

    Kernel::InStream & stream;

    // What the steps work on.
    std::uint32_t widest = 0, highest = 0;
    std::uint64_t largestChunk = 0;
    int skippedCount = 0;
    int passCount = 0;
    unsigned char * rows = nullptr; // not owned
    std::size_t stride = 0;
    int rowCount = 0;
    bool wasAborted = false;
    bool const * abort = nullptr;
};
}
