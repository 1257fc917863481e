#include "host/Session.h"

#include "files/ImageLimits.h"
#include "host/Failure.h"
#include "host/Signals.h"
#include "host/Statistics.h"
#include "kernel/Dispatch.h"
#include "kernel/FileSystem.h"
#include "kernel/Trace.h"
#include "pixel/MemoryManager.h"
#include "storage/Block.h"
#include "storage/Tile.h"

#include <fmt/format.h>

#include <cstdlib>
#include <new>
#include <stdexcept>

namespace Host {
namespace {
class TraceToMessages final : public Kernel::TraceSink {
public:
    explicit TraceToMessages(Messages & traceMessages) : messages(traceMessages) {}
    void Write(std::string_view message) override { messages.Trace(message); }

private:
    Messages & messages;
};

/// Where tiles go that don't fit into memory: a disk, which the folder for temporary files may not be.
std::string GetDefaultBackstore() {
    char const * const chosen = std::getenv("TMPDIR");
    return chosen && *chosen ? chosen : "/var/tmp";
}

void SetLimits(GlobalSettings const & settings) {
    if (settings.memoryMebibytes)
        Raster::MemoryManager::Instance().SetDRAMLimit(*settings.memoryMebibytes);
    if (settings.decodeLimitMebibytes) {
        auto limits = Raster::GetImageLimits();
        limits.largestDecodedBytes = *settings.decodeLimitMebibytes << 20;
        Raster::SetImageLimits(limits);
    }
}
}

Session::Session(GlobalSettings const & globalSettings) : settings(globalSettings) {
    messages.SetQuiet(settings.quiet);
    if (settings.verbose)
        Kernel::SetTraceSink(Kernel::Counted<Kernel::TraceSink>(new TraceToMessages(messages)));
    if (!settings.backstore.empty() && !Kernel::FileSystem::IsDirectory(settings.backstore.c_str()))
        throw UsageError(fmt::format("--backstore: there is no folder '{}'", settings.backstore));
    if (settings.threads != 0)
        Kernel::Dispatch::SetThreadCount(settings.threads);
    SetLimits(settings);
}

Session::~Session() {
    if (settings.stats)
        PrintStatistics();
    Kernel::SetTraceSink({});
}

void Session::PrepareForPixels() {
    if (isPrepared)
        return;
    isPrepared = true;
    Raster::Tile::InitStaticTiles();
    Raster::Block::InitStaticBlock();
    Raster::Block::InitBackstore((settings.backstore.empty() ? GetDefaultBackstore() : settings.backstore).c_str());
    if (auto const path = Raster::Block::GetBackstorePath(); !path.IsEmpty())
        backstoreFile.emplace(path.GetCharacters());
}

void Session::Report(std::string const & file) {
    try {
        throw;
    } catch (Interrupted const &) {
        throw;
    } catch (UsageError const &) {
        throw;
    } catch (std::bad_alloc const &) {
        if (Signals::IsAborted())
            throw Interrupted();
        messages.Error(file, "there is not enough memory; close other programs, or take a lower --memory");
    } catch (Failure const & failure) {
        messages.Error(failure.GetFile().empty() ? file : failure.GetFile(), failure.what());
    } catch (std::exception const & failure) {
        if (Signals::IsAborted()) // whatever it is, it came of the end that was asked for
            throw Interrupted();
        messages.Error(file, failure.what());
    }
}
}
