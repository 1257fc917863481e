#pragma once

#include <cstddef>
#include <string>

namespace Host {
/// Ctrl-C and its kin. SIGINT, SIGTERM and SIGHUP, which a terminal that is closed sends, set a flag that all long work
/// polls; who notices it throws `Interrupted`, and the program ends with 128 and the number of the signal. Work that
/// doesn't come back soon enough is not waited for: then the handler itself removes what is unfinished and ends the
/// process. SIGPIPE and SIGXFSZ are ignored, so that a closed pipe and a full disk arrive as errors.
class Signals {
public:
    /// Once, before threads start.
    static void Install();
    /// For the library; never null.
    static bool * GetAbortFlag();
    static bool IsAborted();
    /// Throws `Interrupted` if the flag is set.
    static void ThrowIfAborted();
    /// The first signal that came; 0 for none.
    static int GetSignal();
};

/// A file that has to go if the process has to end at once. Registered while the object lives.
class UnfinishedFile {
public:
    explicit UnfinishedFile(std::string const & path);
    UnfinishedFile(UnfinishedFile const &) = delete;
    UnfinishedFile & operator=(UnfinishedFile const &) = delete;
    ~UnfinishedFile();

private:
    std::size_t slot; // beyond the last one if all were taken; the file then stays after a forced end
};
}
