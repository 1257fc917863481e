/// libjpeg's compressor over a stream.
#pragma once

#include "files/ExportOptions.h"
#include "files/jpeg/JPEGSession.h"
#include "kernel/Counted.h"
#include "kernel/OutStream.h"

#include <cstdint>
#include <span>

namespace Raster {
/// Writes one picture: `Begin`, a `WriteRow` for each row from the top, `Finish`. All of them throw what the stream
/// throws, `JPEGError`, and std::bad_alloc; the file then stays unfinished.
class JPEGWriter : public JPEGSession {
public:
    using View = std::span<std::uint8_t const>;

    /// @param components  bytes of a pixel: 1 for grey, 3 for RGB, 4 for CMYK.
    JPEGWriter(Kernel::Counted<Kernel::OutStream> outStream, int width, int height, int components,
               ExportOptions const & options);
    ~JPEGWriter();

    /// Everything before the picture.
    /// @param profile, resources  may be empty. A profile that is too large for the format is left out, and traced.
    void Begin(View profile, View resources);
    /// @param row  width * components bytes.
    /// @return false if it was stopped by the abort flag: the file stays unfinished then. The same from `Finish`.
    bool WriteRow(unsigned char * row);
    bool Finish();
    bool HasAllRows() const { return codec.next_scanline >= codec.image_height; }

private:
    static JPEGWriter & Of(j_compress_ptr codec) { return *static_cast<JPEGWriter *>(codec->client_data); }

    static void SetUpStep(JPEGWriter & writer);
    static void BeginStep(JPEGWriter & writer);
    static void RowStep(JPEGWriter & writer);
    static void FinishStep(JPEGWriter & writer);

    static void OnInit(j_compress_ptr codec);
    static boolean OnEmpty(j_compress_ptr codec);
    static void OnTerminate(j_compress_ptr codec);

    void FlushBuffer(std::size_t count);
    bool RunUnlessAborted(void (*step)(JPEGWriter &));
    bool WriteToStream(std::size_t count) noexcept;
    void WriteSegments(int marker, View name, View data, bool isNumbered);

    jpeg_compress_struct codec{};
    jpeg_destination_mgr destination{};
    unsigned char buffer[bufferBytes];
    Kernel::Counted<Kernel::OutStream> const stream;
    bool hasTakenAll = true; // the stream, of the last buffer

    int const components;
    int const quality;
    bool const isProgressive;
    std::uint16_t const density;
    View profileBytes, resourceBytes; // not owned; only during `Begin`
    JSAMPROW heldRow = nullptr;
};
}
