#pragma once

#include "host/FileStream.h"
#include "host/Signals.h"
#include "kernel/Counted.h"

#include <memory>
#include <optional>
#include <string>

namespace Host {
/// What stands for standard input and output in place of a path.
inline constexpr char const * standardStream = "-";

/// Whether a file that is there may be replaced.
enum class Existing { Replace, Keep };

/// A file in the making. Until `Commit` nothing is to be seen of it: it grows under another name beside the one that it
/// gets, and goes away if it isn't finished. What was there before is replaced as a whole, through a link if the path
/// is one, and its mode is kept. Standard output gets all or nothing too, from memory. Devices are written as they are.
/// Belongs to one thread.
class OutputFile {
public:
    /// Throws `Failure`: the path is a folder or a pipe, there is no such folder, nothing may be written there, there
    /// is a file that has to stay, or standard output is a terminal.
    OutputFile(std::string const & path, Existing existing);
    OutputFile(OutputFile const &) = delete;
    OutputFile & operator=(OutputFile const &) = delete;
    ~OutputFile();

    /// Where the content goes.
    Kernel::Counted<Kernel::OutStreamSeekable> const & GetStream() const { return stream; }
    /// Why the stream refused, in words for the user; empty if it didn't.
    std::string GetWriteFailure() const;
    /// Makes the content the file. Throws `Failure`; all is as it was then.
    void Commit();

    /// Says whether `path` can be written as far as that can be told without doing it, so that no work is in vain.
    /// Throws as the constructor does.
    static void Check(std::string const & path, Existing existing);

private:
    class Target;

    void CommitToFile();
    void CommitToStandardOutput();

    std::unique_ptr<Target> target;           // null for standard output
    Kernel::Counted<FileStream> fileStream;   // null for standard output
    std::string temporaryPath;                // empty if the target itself is written
    std::optional<UnfinishedFile> unfinished; // the temporary file
    Kernel::Counted<Kernel::OutStreamSeekable> stream;
};
}
