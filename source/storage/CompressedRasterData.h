#pragma once

#include "colour/ICCProfile.h"
#include "kernel/Consolidated.h"
#include "kernel/Counted.h"
#include "kernel/CriticalSectionSpin.h"
#include "kernel/FileStoreItem.h"
#include "kernel/InStream.h"
#include "kernel/OutStream.h"
#include "kernel/RawData.h"
#include "kernel/String.h"
#include "storage/DynamicBitmap.h"

#include <cstdint>
#include <memory>

namespace Raster {
class CompressedRasterData;

/// What decoding has found wrong with an image file, in words for users.
struct DecodeProblems {
    Kernel::StringUtf8 failure; ///< why it shows an empty picture; empty if it shows its own
    Kernel::StringUtf8 warning; ///< damage that the decoder could live with, a part of the picture may be wrong
};

/// What the layers above supply so that the bytes of image files can be shown.
struct CompressedDataCodec {
    /// Decodes the file.
    /// @param bitmap  receives the picture in the file's own size and format; nothing if nobody recognises the bytes.
    /// @param profile  receives the profile of the file, if it has one.
    /// @param problems  receives what is wrong.
    /// @param abort  null, or a flag to stop with; what was decoded by then is not used.
    void (*decode)(Kernel::Counted<CompressedRasterData const> const & data, DynamicBitmap & bitmap,
                   Kernel::Consolidated<ICCProfile> & profile, DecodeProblems & problems, bool * abort);
    /// Inverts the colours of a picture in place.
    void (*invert)(DynamicBitmap & bitmap, bool * abort);
    /// Puts a picture into an empty one of another size or format, at the origin: through the profiles where both are
    /// known, differ, and can be connected.
    void (*convert)(DynamicBitmap & dest, DynamicBitmap const & source,
                    Kernel::Consolidated<ICCProfile> const & sourceProfile,
                    Kernel::Consolidated<ICCProfile> const & destProfile, bool * abort);
};
/// Sets it for the process; null takes it away, and every picture is empty then. The record is not copied.
/// @return the one before.
RASTER_API CompressedDataCodec const * SetCompressedDataCodec(CompressedDataCodec const * codec) noexcept;

/// The bytes of an image file, in memory and unchanged: what a user placed, or what a writer makes. They count as
/// compressed memory while they are held. It is the backing of bitmaps: a document stores the file as it is, and
/// bitmaps get their pixels by decoding it, once. Threads: any number may read and decode; who changes the bytes does
/// so alone.
class RASTER_API CompressedRasterData final : public Kernel::FileStoreItem {
public:
    using Block = Kernel::RawDataT<Kernel::Countable, Kernel::AllocatorNew>;

    CompressedRasterData(); ///< No bytes.
    CompressedRasterData(CompressedRasterData const &) = delete;
    CompressedRasterData & operator=(CompressedRasterData const &) = delete;
    ~CompressedRasterData() override;

    /// Null if there are no bytes. Valid until the bytes are replaced or grow. Who writes through this pointer calls
    /// `GetState().MarkAsDirty()`, as the other members that change something do, so that the next save stores it.
    unsigned char * GetData() { return data.get(); }
    unsigned char const * GetData() const { return data.get(); }
    std::uint64_t GetSize() const { return size; }

    /// Whether the picture is to be inverted once it is decoded.
    bool GetInvert() const { return invert; }
    void SetInvert(bool inverted);

    // If memory can't be had the next four throw std::bad_alloc and change nothing.

    /// Takes a copy of these bytes in place of the old ones, which they may be.
    void CopyFrom(unsigned char const * bytes, std::uint64_t byteCount);
    /// Keeps the bytes as far as they fit. A larger size moves them, the new bytes being 0; a smaller one frees no
    /// memory.
    void SetSize(std::uint64_t newSize);
    /// Takes the bytes of a file in place of the old ones, which are gone in any case.
    /// @return whether the file could be opened, errno telling why not. Of a file that can't be read to its end, what
    ///         came.
    bool SetFromFile(char const * path);
    /// Takes that many bytes in place of the old ones. The size stays as it is: `SetSize` makes them visible.
    /// @return whether all came; false for 0.
    bool SetFromStream(Kernel::InStream & stream, std::uint64_t byteCount);

    /// Creates or replaces the file. @return whether all was written.
    bool WriteToFile(char const * path) const;
    /// Hands the bytes over; none are left.
    Block RelinquishOwnership();

    /// The decoded picture, in the size and format that the file has; decoded by the first who asks and then kept. An
    /// item without bytes shows as an empty picture of the size and format that are asked for, and so does one whose
    /// bytes nobody recognises. An abort keeps nothing.
    Kernel::Counted<DynamicBitmap const> GetBitmapRepresentation(Format format, int width, int height,
                                                                 bool * abort) const;
    /// The profile of the file, once it was decoded; null if it has none.
    Kernel::Consolidated<ICCProfile> GetDecodedProfile() const;
    /// What was wrong with the file when it was decoded; nothing before that. Who lets users paint on its picture, or
    /// writes that elsewhere, asks first: an empty picture in the place of one that can't be decoded here, for want of
    /// memory or of a newer program, is the end of it.
    DecodeProblems GetDecodeProblems() const;
    /// Gives a typed bitmap the tiles of the decoded picture. Where size or format differ a converted picture is made
    /// for it: cut or padded at the origin, not scaled; through the profiles if both are known and differ.
    /// @param targetProfile  that of the target's colours; null if it has none.
    /// @param target  the `Bitmap` of `format`.
    void SetPlanesIntoInternalBitmap(Format format, Kernel::Consolidated<ICCProfile> targetProfile, void * target,
                                     int width, int height, bool * abort) const;

    /// The loader of bitmaps whose backing is such an item.
    static bool LoadBitmap(BitmapCore & bitmap, Kernel::DelayLoadHolder & backing, bool * abort);

    void Save(Kernel::OutStream & stream, Kernel::FileStoreOut & store) const override;
    bool Load(Kernel::InStream & stream, Kernel::FileStore & store) override;
    Kernel::FileStoreItemType const & GetObjectFileStoreItemType() const override { return GetTypeFileStoreItemType(); }
    static Kernel::FileStoreItemType const & GetTypeFileStoreItemType();

private:
    using Bytes = std::unique_ptr<unsigned char[]>;

    static Bytes Allocate(std::uint64_t byteCount);
    void Replace(Bytes bytes, std::uint64_t byteCount, std::uint64_t newSize);
    void Account(std::uint64_t byteCount);
    void Changed();
    void Trim();
    friend class CompressedRasterDataOutStream;

    Bytes data;
    std::uint64_t capacity = 0; // bytes of `data`
    std::uint64_t size = 0;     // of these, those in use
    std::uint64_t filled = 0;   // and those that come to light when the size grows: what `SetFromStream` has taken
    std::uint64_t accounted = 0;
    bool invert = false;
    mutable Kernel::CriticalSectionSpin cacheLock{Kernel::LockRank::Leaf}; // guards the three below
    mutable Kernel::Counted<DynamicBitmap const> bitmapRepresentation;     // null until decoded
    mutable Kernel::Consolidated<ICCProfile> profile;
    mutable DecodeProblems problems;
};

/// Reads the bytes as if they were a file. They must stay as they are meanwhile.
class RASTER_API CompressedRasterDataInStream final : public Kernel::InStreamSeekable {
public:
    /// @param source  null reads as empty.
    explicit CompressedRasterDataInStream(Kernel::Counted<CompressedRasterData const> source);
    ~CompressedRasterDataInStream() override;

    std::uint64_t Tell() const override { return position; }
    std::uint64_t GetSize() const override;
    bool IsEndOfData() const override { return position >= GetSize(); }
    bool Seek(Kernel::SeekOrigin origin, std::int64_t offset) override;

protected:
    std::uint64_t ReadI(void * dest, std::uint64_t byteCount) override;

private:
    Kernel::Counted<CompressedRasterData const> const item;
    std::uint64_t position = 0;
};

/// Writes over the bytes as if they were a file, from the start. While it writes, the item is larger than what was
/// written: `Finish` gives it its size, and the rest of the memory back. A write for which there is no memory takes 0
/// bytes.
class RASTER_API CompressedRasterDataOutStream final : public Kernel::OutStreamSeekable {
public:
    /// @param target  not null.
    explicit CompressedRasterDataOutStream(Kernel::Counted<CompressedRasterData> target);
    ~CompressedRasterDataOutStream() override;

    std::uint64_t Tell() const override { return position; }
    std::uint64_t GetSize() const override { return end; }
    bool Seek(Kernel::SeekOrigin origin, std::int64_t offset) override;
    void Reserve(std::uint64_t byteCount) override;
    bool Finish() override;

protected:
    std::uint64_t WriteI(void const * source, std::uint64_t byteCount) override;

private:
    bool Grow(std::uint64_t needed);

    Kernel::Counted<CompressedRasterData> const item;
    std::uint64_t position = 0; // may lie beyond the end
    std::uint64_t end = 0;      // of what was written
};
}
