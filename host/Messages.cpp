#include "host/Messages.h"

#include "host/Text.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace Host {
namespace {
constexpr char const * red = "\033[1;31m";
constexpr char const * yellow = "\033[1;33m";
constexpr char const * plain = "\033[0m";
constexpr char const * clearLine = "\r\033[K";

bool WantsColour() {
    char const * const refusal = std::getenv("NO_COLOR");
    return !refusal || !*refusal;
}

/// Whatever can't be written is lost: there is nowhere to complain.
void WriteToStandardError(std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t const written = ::write(STDERR_FILENO, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return;
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
}
}

Messages::Messages() : isTerminal(::isatty(STDERR_FILENO) == 1), hasColour(isTerminal && WantsColour()) {}

Messages::~Messages() { SetStatusLine({}); }

void Messages::Error(std::string_view file, std::string_view text) { Print(red, file, {}, text); }

void Messages::Warn(std::string_view file, std::string_view text) {
    if (!quiet)
        Print(yellow, file, "warning: ", text);
}

void Messages::Note(std::string_view file, std::string_view text) {
    if (!quiet)
        Print(nullptr, file, "note: ", text);
}

void Messages::Trace(std::string_view text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.remove_suffix(1);
    Write("trace: " + MakePrintable(text) + '\n');
}

void Messages::Print(char const * colour, std::string_view file, std::string_view kind, std::string_view text) {
    bool const isColoured = hasColour && colour;
    std::string line;
    if (isColoured)
        line += colour;
    line += "raster: ";
    if (isColoured)
        line += plain;
    if (!file.empty())
        line += MakePrintable(file) + ": ";
    line += kind;
    line += MakePrintable(text);
    std::fflush(stdout); // so that results and messages keep their order where both go to one place
    Write(line + '\n');
}

void Messages::Write(std::string const & lines) {
    std::lock_guard const guard(lock);
    WriteToStandardError(status.empty() ? lines : clearLine + lines + status);
}

void Messages::SetStatusLine(std::string_view text) {
    if (!isTerminal)
        return;
    std::lock_guard const guard(lock);
    if (text.empty() && status.empty())
        return;
    status = text;
    WriteToStandardError(clearLine + status);
}
}
