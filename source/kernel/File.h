#pragma once

#include "kernel/Export.h"

#include <cstdint>
#include <optional>
#include <stdexcept>

namespace Kernel {
/// An open file. Offsets are 64 bits; interrupted and partial transfers are carried on. Only regular files open, for
/// writing also character devices: a directory or a pipe fails at once and never hangs. Descriptors are not inherited
/// by child processes. Belongs to one thread at a time, but for `ReadAt` and `WriteAt`.
class RASTER_API File {
public:
    /// `OpenUnmanaged` could not open the file.
    class RASTER_API OpenUnmanagedException : public std::runtime_error {
    public:
        OpenUnmanagedException(char const * path, int givenErrorNumber);
        ~OpenUnmanagedException() override;
        /// The errno of the failure.
        int GetErrorNumber() const noexcept { return errorNumber; }

    private:
        int errorNumber;
    };

    File() noexcept = default; ///< Not open.
    /// Takes over a descriptor.
    explicit File(int ownedDescriptor) noexcept : descriptor(ownedDescriptor) {}
    File(File && other) noexcept;
    File & operator=(File && other) noexcept;
    ~File();

    /// @param path  UTF-8, opened as it is.
    /// @param mode  as for fopen: "rb" to read, "r+b" to read and write, "wb" and "w+b" to create or empty; with an "x"
    ///              to fail if the file is there. Appending isn't offered.
    /// @return a file that is not open, with errno set, if that fails.
    static File Open(char const * path, char const * mode);
    /// The same for libraries that want a descriptor, which the caller closes. Throws `OpenUnmanagedException`.
    static int OpenUnmanaged(char const * path, char const * mode);

    bool IsOpen() const noexcept { return descriptor >= 0; }
    int GetDescriptor() const noexcept { return descriptor; }
    /// @return false if the system reports a failed write only now. On a file that isn't open: true.
    bool Close() noexcept;
    /// Hands the descriptor over to the caller.
    int Detach() noexcept;

    /// These four return how many bytes were transferred: fewer than asked for only at the end of the file or on
    /// failure. The first two go on from the position, the others leave it alone and may be called from any thread.
    std::uint64_t Read(void * dest, std::uint64_t size);
    std::uint64_t Write(void const * data, std::uint64_t size);
    std::uint64_t ReadAt(std::uint64_t offset, void * dest, std::uint64_t size) const;
    std::uint64_t WriteAt(std::uint64_t offset, void const * data, std::uint64_t size) const;

    std::uint64_t Tell() const noexcept { return position; }
    void SetPosition(std::uint64_t newPosition) noexcept { position = newPosition; }
    /// Nothing if the system can't tell.
    std::optional<std::uint64_t> GetSize() const;

private:
    int descriptor = -1; // owned
    std::uint64_t position = 0;
};
}
