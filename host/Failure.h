#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace Host {
/// A file can't be done. The text says what is wrong and what would help, in words for the user and without the name of
/// the file, which whoever reports it puts before.
class Failure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;

    /// The file that is to blame, if it isn't the one that is being worked on; else empty.
    std::string const & GetFile() const { return file; }
    void SetFile(std::string newFile) { file = std::move(newFile); }

private:
    std::string file;
};

/// Does what may fail because of `file`.
template<class Work>
auto Blaming(std::string const & file, Work && work) {
    try {
        return work();
    } catch (Failure & failure) {
        if (failure.GetFile().empty())
            failure.SetFile(file);
        throw;
    }
}

/// The command was called in a way that makes no sense.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A signal asked for an end. Passes through everything, so that what is unfinished goes on the way.
class Interrupted {};
}
