#include "files/jpeg/JPEGMetadata.h"

#include "files/ImageLimits.h"
#include "kernel/Trace.h"

#include <algorithm>
#include <string_view>

namespace Raster {
namespace {
using View = JPEGMetadata::View;

// The zero byte that ends each of these belongs to it.
constexpr std::string_view exifName{"Exif\0\0", 6}, profileName{"ICC_PROFILE\0", 12},
    resourcesName{"Photoshop 3.0\0", 14};

bool BeginsWith(View data, std::string_view name) {
    return data.size() >= name.size() &&
           std::equal(name.begin(), name.end(), data.begin(),
                      [](char expected, std::uint8_t byte) { return static_cast<std::uint8_t>(expected) == byte; });
}

// Numbers in the byte order of a TIFF header; 0 outside the bytes.
class TIFFBytes {
public:
    explicit TIFFBytes(View tiffBytes) : bytes(tiffBytes) {
        isLittle = BeginsWith(bytes, "II");
        isValid = (isLittle || BeginsWith(bytes, "MM")) && Get(2, 2) == 42;
    }
    bool IsValid() const { return isValid; }
    std::uint32_t Get(std::uint64_t offset, unsigned count) const {
        if (offset + count > bytes.size())
            return 0;
        std::uint32_t number = 0;
        for (unsigned i = 0; i < count; ++i)
            number = number << 8 | bytes[offset + (isLittle ? count - 1 - i : i)];
        return number;
    }

private:
    View bytes;
    bool isLittle = false, isValid = false;
};

int ReadOrientation(View tiffBytes) {
    constexpr std::uint32_t orientationTag = 0x0112, shortType = 3, longType = 4;
    constexpr unsigned entryBytes = 12;
    TIFFBytes const tiff(tiffBytes);
    if (!tiff.IsValid())
        return 1;
    std::uint64_t const directory = tiff.Get(4, 4);
    std::uint32_t const entryCount = tiff.Get(directory, 2);
    for (std::uint32_t i = 0; i < entryCount; ++i) {
        std::uint64_t const entry = directory + 2 + std::uint64_t(i) * entryBytes;
        if (tiff.Get(entry, 2) != orientationTag)
            continue;
        std::uint32_t const type = tiff.Get(entry + 2, 2);
        std::uint32_t const value = type == shortType  ? tiff.Get(entry + 8, 2)
                                    : type == longType ? tiff.Get(entry + 8, 4)
                                                       : 0;
        return value >= 1 && value <= 8 ? static_cast<int>(value) : 1;
    }
    return 1;
}
}

void JPEGMetadata::TakeSegment(int marker, View data) {
    if (marker == profileMarker && data.size() >= profileHeaderBytes && BeginsWith(data, profileName)) {
        TakeProfileChunk(data);
    } else if (marker == resourcesMarker && BeginsWith(data, resourcesName)) {
        TakeImageResources(data.subspan(resourcesHeaderBytes));
    } else if (marker == exifMarker && !hasExif && BeginsWith(data, exifName)) {
        hasExif = true; // the first one counts
        orientation = ReadOrientation(data.subspan(exifName.size()));
    }
}

void JPEGMetadata::TakeProfileChunk(View data) {
    if (isProfileBroken)
        return;
    unsigned const number = data[12], count = data[13];
    if (profileChunks.empty())
        profileChunkCount = count;
    View const bytes = data.subspan(profileHeaderBytes);
    profileBytes += bytes.size();
    if (count != profileChunkCount || number == 0 || number > count || profileChunks.contains(number)) {
        GiveUpProfile();
    } else if (profileBytes > GetImageLimits().largestProfileBytes) {
        Kernel::Trace("JPEG: a colour profile over the limit largestProfileBytes is ignored\r\n");
        GiveUpProfile();
    } else {
        profileChunks.emplace(number, Bytes(bytes.begin(), bytes.end()));
    }
}

void JPEGMetadata::GiveUpProfile() {
    isProfileBroken = true;
    profileChunks.clear();
}

JPEGMetadata::Bytes JPEGMetadata::GetProfile() const {
    Bytes profile;
    if (profileChunks.size() != profileChunkCount)
        return profile;
    profile.reserve(profileBytes);
    for (auto const & [number, chunk] : profileChunks)
        profile.insert(profile.end(), chunk.begin(), chunk.end());
    return profile;
}

void JPEGMetadata::TakeImageResources(View data) {
    if (areResourcesTooLarge)
        return;
    if (resources.size() + data.size() > GetImageLimits().largestMetadataBytes) {
        Kernel::Trace("JPEG: image resource blocks over the limit largestMetadataBytes are ignored\r\n");
        areResourcesTooLarge = true;
        resources = {};
        return;
    }
    resources.insert(resources.end(), data.begin(), data.end());
}
}
