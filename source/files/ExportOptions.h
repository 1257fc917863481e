#pragma once

#include "colour/ICCProfile.h"
#include "kernel/Consolidated.h"
#include "pixel/Vocabulary.h"

#include <cstdint>

namespace Raster {
class DynamicPalette;

/// What a caller asks of a file that is to be written. A value; copies share the profile.
class RASTER_API ExportOptions {
public:
    using BitStreamFormat = Raster::BitStreamFormat;

    ExportOptions();
    ExportOptions(ExportOptions const &);
    ExportOptions & operator=(ExportOptions const &);
    ~ExportOptions();

    /// The colours of an indexed file, for PNG and GIF. Not owned; null is none.
    DynamicPalette const * GetPalette() const { return palette; }
    void SetPalette(DynamicPalette const * newPalette) { palette = newPalette; }

    /// For HD Photo.
    BitStreamFormat GetBitStreamFormat() const { return bitStreamFormat; }
    void SetBitStreamFormat(BitStreamFormat format) { bitStreamFormat = format; }

    /// 0 to 100, for JPEG and HD Photo.
    std::uint8_t GetQuality() const { return quality; }
    /// Above 100 is 100.
    void SetQuality(unsigned newQuality) { quality = newQuality < 100 ? static_cast<std::uint8_t>(newQuality) : 100; }

    /// Written into PNG, JPEG and TIFF; null is none.
    Kernel::Consolidated<ICCProfile> GetICCProfile() const;
    void SetICCProfile(Kernel::Consolidated<ICCProfile> profile);

    /// For JPEG.
    bool GetProgressive() const { return progressive; }
    void SetProgressive(bool isProgressive) { progressive = isProgressive; }

    /// Dots per inch, for PNG, JPEG and TIFF.
    double GetDPI() const { return dpi; }
    void SetDPI(double newDPI) { dpi = newDPI; }

    /// Whether alpha is written, for PNG and TIFF.
    bool GetAlpha() const { return alpha; }
    void SetAlpha(bool withAlpha) { alpha = withAlpha; }

private:
    DynamicPalette const * palette = nullptr;
    BitStreamFormat bitStreamFormat = BitStreamFormatFrequency;
    std::uint8_t quality = 100;
    Kernel::Consolidated<ICCProfile> iccProfile;
    bool progressive = false;
    double dpi = 96.0;
    bool alpha = true;
};
}
