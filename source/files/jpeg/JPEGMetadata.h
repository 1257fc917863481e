/// What a JPEG says beside its picture: colour profile, image resource blocks, orientation. Knows nothing of the codec.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <vector>

namespace Raster {
/// Collects the marker segments that stand before the picture, one after the other.
class JPEGMetadata {
public:
    using Bytes = std::vector<std::uint8_t>;
    using View = std::span<std::uint8_t const>;

    static constexpr int exifMarker = 0xE1, profileMarker = 0xE2, resourcesMarker = 0xED; // APP1, APP2, APP13
    /// The most data that a segment has.
    static constexpr std::size_t largestSegment = 65533;
    /// What precedes the bytes in a segment of a profile (its name, a number from 1, the count) and of resource blocks.
    static constexpr std::size_t profileHeaderBytes = 14, resourcesHeaderBytes = 14;

    /// @param data  of one segment, without its length. Segments of other kinds are ignored.
    void TakeSegment(int marker, View data);

    /// Empty if there is no profile, or one that lacks a piece.
    Bytes GetProfile() const;
    /// Empty if there are none.
    Bytes const & GetImageResourceBlocks() const { return resources; }
    /// 1 to 8 as EXIF has it; 1 if it has none.
    int GetOrientation() const { return orientation; }

private:
    void TakeProfileChunk(View data);
    void TakeImageResources(View data);
    void GiveUpProfile();

    std::map<unsigned, Bytes> profileChunks; // by number
    unsigned profileChunkCount = 0;          // as the chunks say
    std::uint64_t profileBytes = 0;
    bool isProfileBroken = false;
    Bytes resources;
    bool areResourcesTooLarge = false;
    int orientation = 1;
    bool hasExif = false;
};
}
