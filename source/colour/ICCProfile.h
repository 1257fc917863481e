#pragma once

#include "kernel/SharedSerialisable.h"
#include "kernel/String.h"
#include "pixel/Format.h"

#include <cstdlib>
#include <memory>
#include <span>

namespace Raster {
class ICCManager;

/// A colour profile. `ICCManager` makes them; equal ones are one object, held as `Kernel::Consolidated<ICCProfile>`,
/// and enter the manager's registry by themselves. Immutable once consolidated, and then safe from any thread.
///
/// Two profiles are equal if their names and bytes are, apart from the time of creation and the digest in the header.
class RASTER_API ICCProfile final : public Kernel::SharedSerialisable {
public:
    ICCProfile(ICCProfile const &) = delete;
    ICCProfile & operator=(ICCProfile const &) = delete;
    ~ICCProfile() override;

    /// `ColourSpaceRGBUF` for linear RGB. `ColourSpaceNone` for any space that no format has, and without a handle.
    ColourSpace GetColourSpace() const;
    /// Whether pixels of the format can be meant by this profile. Linear RGB fits `RGBAUF` and nothing else.
    bool CanApplyTo(Format format) const;
    bool IsDevicePrinter() const;
    bool IsDeviceLink() const;
    /// As the header has it, such as 0x0420 for 4.2. 0 without a handle.
    unsigned GetVersion() const;

    /// The bytes, as the colour library writes them. They live as long as the profile.
    std::span<std::uint8_t const> GetRawData() const noexcept { return {rawData.get(), rawDataSize}; }
    Kernel::StringUtf8 const & GetProfileName() const noexcept { return name; }
    /// Whether the manager made the profile, rather than read it.
    bool IsStandard() const noexcept { return isStandard; }
    /// Whether the curves of red and green are straight; blue isn't asked. For grey, whether its curve is.
    bool IsLinear() const noexcept { return isLinear; }
    /// The exponent that comes closest to the green or grey curve; 2.2 where that means nothing.
    double GetApproximateGamma() const noexcept { return gamma; }
    /// The colour library's handle, which stays the profile's; null if the bytes were no profile.
    void * GetHandle() const noexcept { return handle; }

    /// An empty profile, for who reads one from a document.
    static Kernel::Counted<Kernel::Serialisable> CreateObject();
    /// For a profile from `CreateObject` that is not consolidated yet: takes a copy of the bytes and becomes what they
    /// describe. @return false if they are no profile; the handle is null then.
    bool SetRawData(void const * data, std::uint64_t size);

    static Kernel::SharedClassProperties const & GetClassProperties();
    Kernel::ClassPropertiesBase const & GetObjectClassProperties() const override;
    void Save(Kernel::OutSerialiser & serialiser) const override;
    bool Load(Kernel::InSerialiser const & serialiser, Kernel::FileStore & store, unsigned short version) override;
    void OnConsolidated() const override;
    bool CompareMembers(Kernel::Serialisable const & other) const override;
    void AccumulateHash(Kernel::HashAccumulator & accumulator) const override;

private:
    friend class ICCManager;

    struct FreeBytes {
        void operator()(std::uint8_t * bytes) const noexcept { std::free(bytes); }
    };
    using Bytes = std::unique_ptr<std::uint8_t[], FreeBytes>;

    ICCProfile() noexcept = default;
    explicit ICCProfile(bool standard) noexcept : isStandard(standard) {}

    void * handle = nullptr; // owned; null only before the profile is made and if its bytes were damaged
    Kernel::StringUtf8 name;
    Bytes rawData;
    std::size_t rawDataSize = 0;
    bool isStandard = false;
    bool isLinear = false;
    double gamma = 2.2;
};
}
