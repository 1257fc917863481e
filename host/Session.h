#pragma once

#include "host/Messages.h"
#include "host/Settings.h"
#include "host/Signals.h"

#include <optional>
#include <string>

namespace Host {
/// One run of the program: what every command shares. Made before anything of the library is used.
class Session {
public:
    /// Sets up the library as asked. Throws `UsageError`.
    explicit Session(GlobalSettings const & globalSettings);
    Session(Session const &) = delete;
    Session & operator=(Session const &) = delete;
    /// Says what was used, if that was asked for.
    ~Session();

    Messages & GetMessages() { return messages; }
    GlobalSettings const & GetSettings() const { return settings; }

    /// Has to be called before the first bitmap is made. Cheap when called again. Not needed to look at headers, which
    /// then costs less.
    void PrepareForPixels();

    /// Does one file's work. What goes wrong with the file is reported under its name; a signal passes on.
    /// @return whether it was done. Threads: any.
    template<class Work>
    bool Try(std::string const & file, Work && work) {
        try {
            work();
            return true;
        } catch (...) {
            Report(file);
            return false;
        }
    }
    /// Inside a handler: tells what was thrown. Throws `Interrupted` and `UsageError` on.
    void Report(std::string const & file);

private:
    GlobalSettings const settings;
    Messages messages;
    bool isPrepared = false;
    std::optional<UnfinishedFile> backstoreFile; // goes by itself, unless the process is ended at once
};
}
