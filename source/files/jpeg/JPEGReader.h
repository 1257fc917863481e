/// libjpeg's decompressor over a stream.
#pragma once

#include "files/DecodedPixels.h"
#include "files/RowBands.h"
#include "files/jpeg/JPEGMetadata.h"
#include "files/jpeg/JPEGSession.h"
#include "kernel/Counted.h"
#include "kernel/InStream.h"
#include "pixel/Format.h"

#include <cstdint>
#include <memory>

namespace Raster {
/// Reads one picture: first `ReadHeader`, then once `Decode` or `DecodeBands`.
class JPEGReader : public JPEGSession {
public:
    explicit JPEGReader(Kernel::Counted<Kernel::InStreamSeekable> inStream);
    ~JPEGReader();

    enum class Metadata { Skip, Keep };
    /// Up to the start of the picture. Throws what the stream throws, and `JPEGError`.
    void ReadHeader(Metadata wanted);

    // What the header says.
    int GetWidth() const { return static_cast<int>(codec.image_width); }
    int GetHeight() const { return static_cast<int>(codec.image_height); }
    Format GetFormat() const; ///< `NoFormat` for colour spaces that have none.
    double GetDPI() const;
    JPEGMetadata const & GetMetadata() const { return metadata; }

    /// All rows, or those up to an abort, the rest being zero.
    /// @param components  bytes of a decoded pixel: 1 for grey, 3 for RGB, 4 for CMYK.
    /// Throws what the stream throws, `JPEGError`, `ImageLimitError`, std::bad_alloc.
    DecodedPixels Decode(int components);
    /// The same, in bands that are not kept. The rows after an abort never come.
    /// @return what `take` threw
    std::exception_ptr DecodeBands(int components, BandCut const & cut, BandTaker const & take);
    /// Whether the data ended before the file's end marker.
    bool EndedEarly() const { return endedEarly; }

private:
    static JPEGReader & Of(j_decompress_ptr codec) { return *static_cast<JPEGReader *>(codec->client_data); }
    static j_common_ptr AsCommon(j_decompress_ptr codec) { return reinterpret_cast<j_common_ptr>(codec); }

    static void CreateStep(JPEGReader & reader);
    static void HeaderStep(JPEGReader & reader);
    static void SizeStep(JPEGReader & reader);
    static void StartStep(JPEGReader & reader);
    static void RowsStep(JPEGReader & reader);
    static void FinishStep(JPEGReader & reader);

    static void OnInit(j_decompress_ptr) {}
    static void OnReadProgress(j_common_ptr codec);
    static boolean OnFill(j_decompress_ptr codec);
    static void OnSkip(j_decompress_ptr codec, long count);
    static boolean OnMarker(j_decompress_ptr codec);

    bool Fill() noexcept;
    bool SkipInStream(std::uint64_t count) noexcept;
    bool TakeSegment(int marker, std::size_t size) noexcept;
    unsigned ReadByte();
    void ReadSegment(std::size_t size);
    void Prepare(int wantedComponents);
    bool ReadRows(DecodedPixels & rows, int count);
    std::uint64_t GetCoefficientBytes() const;

    jpeg_decompress_struct codec{};
    jpeg_source_mgr source{};
    unsigned char buffer[bufferBytes];
    std::size_t bufferedBytes = 0;
    Kernel::Counted<Kernel::InStreamSeekable> const stream;
    std::uint64_t streamPosition = 0; // behind the header and what was read ahead
    bool hasRead = false, endedEarly = false;

    JPEGMetadata metadata;
    std::unique_ptr<unsigned char[]> segment; // of a marker; only while metadata is collected

    int components = 0; // of the decoded form
    bool hasSeveralScans = false;
    int lastScan = 0;
    std::uint64_t blockCount = 0, visitedBlocks = 0; // of all components; by the scans that have begun
    DecodedPixels * rows = nullptr;                  // to be filled by `RowsStep`; not owned
    int rowsDone = 0, rowsWanted = 0;
};
}
