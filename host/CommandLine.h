#pragma once

#include "host/Settings.h"

#include <string>
#include <variant>

namespace Host {
/// What the user wants done.
struct Invocation {
    GlobalSettings global;
    std::variant<std::monostate, InfoSettings, ConvertSettings, ResizeSettings, ThumbnailSettings, CompositeSettings,
                 ProfileSettings, DocumentSettings>
        command;
    /// For `--help` and `--version`: to be printed, and no command.
    std::string answer;
};

/// Throws `UsageError`.
Invocation ParseCommandLine(int argumentCount, char ** arguments);
}
