#pragma once

#include <string>

namespace Raster {
/// A scratch file that no other process reads, writes or replaces, and that is deleted with this object.
class PrivateFile {
public:
    /// Creates or empties `directory`/`name`; if another process has locked that, or it isn't this user's plain file,
    /// the same name in the first sub-directory `directory`/`stem`.1, .2, ... that can be had.
    /// Throws `std::system_error`.
    PrivateFile(std::string const & directory, std::string const & stem, std::string const & name);
    PrivateFile(PrivateFile const &) = delete;
    PrivateFile & operator=(PrivateFile const &) = delete;
    ~PrivateFile();

    int GetDescriptor() const noexcept { return descriptor; }
    std::string const & GetPath() const noexcept { return path; }
    /// Deletes the file and its private sub-directory, if the path still leads to this file. The descriptor stays
    /// usable. A forked child leaves them to its parent.
    void Unlink() noexcept;

private:
    bool TryOpen(int folder, std::string const & name);

    int folderDescriptor = -1; // the folder of the file
    int descriptor = -1;
    int process; // the one that deletes
    std::string path, fileName, privateFolder;
};
}
