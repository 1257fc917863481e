#include "colour/ICCProfile.h"

#include "colour/ICCManager.h"
#include "colour/ProfileBytes.h"
#include "kernel/HashAccumulator.h"
#include "kernel/InSerialiser.h"
#include "kernel/OutSerialiser.h"

#include <lcms2.h>

#include <cstring>

namespace Raster {
ICCProfile::~ICCProfile() {
    if (handle)
        cmsCloseProfile(handle);
}

ColourSpace ICCProfile::GetColourSpace() const {
    if (!handle)
        return ColourSpaceNone;
    switch (cmsGetColorSpace(handle)) {
    case cmsSigCmykData:
        return ColourSpaceCMYK;
    case cmsSigGrayData:
        return ColourSpaceGrey;
    case cmsSigLabData:
        return ColourSpaceLAB;
    case cmsSigRgbData:
        return isLinear ? ColourSpaceRGBUF : ColourSpaceRGB;
    default:
        return ColourSpaceNone;
    }
}

bool ICCProfile::CanApplyTo(Format format) const {
    switch (GetColourSpace()) {
    case ColourSpaceCMYK:
        return format == CMYKA8;
    case ColourSpaceGrey:
        return format == IA8 || format == IA16;
    case ColourSpaceLAB:
        return format == LABA16;
    case ColourSpaceRGB:
        return format == RGBA8 || format == RGBA16;
    case ColourSpaceRGBUF:
        return format == RGBAUF;
    case ColourSpaceNone:
        break;
    }
    return false;
}

bool ICCProfile::IsDevicePrinter() const { return handle && cmsGetDeviceClass(handle) == cmsSigOutputClass; }

bool ICCProfile::IsDeviceLink() const { return handle && cmsGetDeviceClass(handle) == cmsSigLinkClass; }

unsigned ICCProfile::GetVersion() const { return handle ? cmsGetEncodedICCversion(handle) >> 16 : 0; }

Kernel::Counted<Kernel::Serialisable> ICCProfile::CreateObject() {
    return Kernel::Counted<Kernel::Serialisable>(new ICCProfile);
}

bool ICCProfile::SetRawData(void const * data, std::uint64_t size) {
    if (!data || size == 0 || size > ICCManager::largestProfileBytes)
        return false;
    Bytes bytes(static_cast<std::uint8_t *>(std::malloc(size)));
    if (!bytes)
        return false;
    std::memcpy(bytes.get(), data, size);
    rawData = std::move(bytes);
    rawDataSize = size;
    return ICCManager::DeserialiseICCProfile(*this);
}

Kernel::SharedClassProperties const & ICCProfile::GetClassProperties() {
    static Kernel::SharedClassProperties const properties("ICPr", /*version=*/1, CreateObject);
    return properties;
}
Kernel::ClassPropertiesBase const & ICCProfile::GetObjectClassProperties() const { return GetClassProperties(); }

void ICCProfile::Save(Kernel::OutSerialiser & serialiser) const {
    serialiser.SaveRawData("Data", rawData.get(), rawDataSize);
}

bool ICCProfile::Load(Kernel::InSerialiser const & serialiser, Kernel::FileStore &, unsigned short) {
    std::span<std::uint8_t const> bytes;
    return serialiser.LoadRawData("Data", bytes) && SetRawData(bytes.data(), bytes.size());
}

void ICCProfile::OnConsolidated() const {
    // Not through GetInstance, which makes the default profiles: this may be one of them in the making.
    ICCManager::GetInstanceInternal().Register(Kernel::Consolidated<ICCProfile>::FromConsolidated(this));
}

bool ICCProfile::CompareMembers(Kernel::Serialisable const & other) const {
    auto const * const profile = dynamic_cast<ICCProfile const *>(&other);
    return profile && name == profile->name && ProfileBytes::AreEqual(GetRawData(), profile->GetRawData());
}

void ICCProfile::AccumulateHash(Kernel::HashAccumulator & accumulator) const {
    accumulator.AddToHash(name.GetView());
    ProfileBytes::AccumulateHash(GetRawData(), accumulator);
}
}
