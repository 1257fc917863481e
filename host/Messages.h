#pragma once

#include <mutex>
#include <string>
#include <string_view>

namespace Host {
/// What the user is told on standard error: `raster: FILE: text`. In colour on a terminal, unless NO_COLOR is set.
/// Threads: any; each message stays whole.
class Messages {
public:
    Messages();
    Messages(Messages const &) = delete;
    Messages & operator=(Messages const &) = delete;
    ~Messages(); ///< Clears the status line.

    /// Errors only from now on.
    void SetQuiet(bool isQuiet) { quiet = isQuiet; }
    bool IsTerminal() const { return isTerminal; }

    void Error(std::string_view file, std::string_view text);
    /// Something that the user would want to know before using the result.
    void Warn(std::string_view file, std::string_view text);
    /// What was decided for the user.
    void Note(std::string_view file, std::string_view text);
    /// For developers; given with its line end, or without.
    void Trace(std::string_view text);
    /// The last line of a terminal, until the next call; messages go above it. Empty: none. Nothing elsewhere.
    void SetStatusLine(std::string_view text);

private:
    void Print(char const * colour, std::string_view file, std::string_view kind, std::string_view text);
    void Write(std::string const & lines);

    std::mutex lock; // guards the terminal and `status`; nothing is called under it
    bool const isTerminal, hasColour;
    bool quiet = false;
    std::string status;
};
}
