/// The program `raster`.
#include "host/CommandLine.h"
#include "host/ExitCode.h"
#include "host/Failure.h"
#include "host/Session.h"
#include "host/Signals.h"
#include "host/Text.h"
#include "host/commands/Commands.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <exception>

namespace Host {
namespace {
struct Runner {
    Session & session;

    bool operator()(std::monostate const &) const { return true; }
    bool operator()(InfoSettings const & settings) const { return RunInfo(session, settings); }
    bool operator()(ConvertSettings const & settings) const { return RunConvert(session, settings); }
    bool operator()(ResizeSettings const & settings) const { return RunResize(session, settings); }
    bool operator()(ThumbnailSettings const & settings) const { return RunThumbnail(session, settings); }
    bool operator()(CompositeSettings const & settings) const { return RunComposite(session, settings); }
    bool operator()(DocumentSettings const & settings) const { return RunDocument(session, settings); }
    bool operator()(ProfileSettings const & settings) const { return RunProfile(session, settings); }
};

/// Whether everything that was printed has arrived. Only now the system may say that it hasn't.
bool FlushStandardOutput(Messages & messages) {
    errno = 0;
    if (std::fflush(stdout) == 0 && !std::ferror(stdout))
        return true;
    messages.Error({}, fmt::format("standard output can't be written ({}); see who reads it",
                                   DescribeError(errno != 0 ? errno : EIO)));
    return false;
}

ExitCode Run(Invocation const & invocation) {
    if (!invocation.answer.empty()) {
        std::fputs(invocation.answer.c_str(), stdout);
        Messages messages;
        return FlushStandardOutput(messages) ? AllDone : FileFailed;
    }
    Session session(invocation.global);
    bool const allDone = std::visit(Runner{session}, invocation.command);
    bool const allPrinted = FlushStandardOutput(session.GetMessages());
    return allDone && allPrinted ? AllDone : FileFailed;
}
}
}

int main(int argumentCount, char ** arguments) {
    using namespace Host;
    try {
        Signals::Install();
        return Run(ParseCommandLine(argumentCount, arguments));
    } catch (Interrupted const &) {
        return 128 + Signals::GetSignal();
    } catch (UsageError const & error) {
        Messages messages;
        messages.Error({}, error.what());
        messages.Error({}, "`raster --help` and `raster COMMAND --help` tell what there is");
        return WrongUsage;
    } catch (std::exception const & failure) {
        Messages messages;
        messages.Error({}, failure.what());
        return FileFailed;
    }
}
