#include "files/ImageLimits.h"
#include "host/Admission.h"
#include "host/Failure.h"
#include "host/Orientation.h"
#include "host/Picture.h"
#include "host/PictureWriter.h"
#include "host/Resample.h"
#include "host/Signals.h"
#include "host/Text.h"
#include "host/commands/Commands.h"
#include "pixel/FormatFunctions.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <map>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <utility>

namespace Host {
namespace {
/// The file's name without folder and extension.
std::string GetStem(std::string const & path) {
    if (path == standardStream)
        return "standard-input";
    std::string const name = path.substr(path.find_last_of('/') + 1); // npos + 1 is 0
    auto const dot = name.find_last_of('.');
    return dot == name.npos || dot == 0 ? name : name.substr(0, dot);
}

bool IsSameFile(std::string const & one, std::string const & other) {
    struct stat oneStatus {
    }, otherStatus{};
    return ::stat(one.c_str(), &oneStatus) == 0 && ::stat(other.c_str(), &otherStatus) == 0 &&
           oneStatus.st_dev == otherStatus.st_dev && oneStatus.st_ino == otherStatus.st_ino;
}

void MakeFolder(std::string const & path) {
    std::error_code error, unknown;
    std::filesystem::create_directories(path, error);
    if (!std::filesystem::is_directory(path, unknown))
        throw Failure(fmt::format("the folder can't be made ({}); choose another --out", DescribeError(error.value())));
}

class Batch {
public:
    Batch(Session & givenSession, ThumbnailSettings const & givenSettings)
        : session(givenSession), settings(givenSettings), admission(Raster::GetImageLimits().largestDecodedBytes),
          progress(session.GetMessages(), settings.in.size() == 1 ? std::string() : "thumbnails") {
        progress.BeginStep(1);
    }

    /// Throws `UsageError` where one result would take the place of another one or of a picture that is read.
    void CheckNames() const {
        std::map<std::string, std::string> stems;
        for (auto const & path : settings.in) {
            auto const [found, isNew] = stems.emplace(GetStem(path), path);
            if (!isNew)
                throw UsageError(fmt::format("'{}' and '{}' would both become {}; call raster once for each, with "
                                             "another --out",
                                             found->second, path, GetTarget(path, "jpg")));
        }
        for (auto const & path : settings.in)
            for (auto const & extension : {"jpg", "png"})
                if (auto const target = GetTarget(path, extension); IsSameFile(target, path))
                    throw UsageError(fmt::format("'{}' would be replaced by its thumbnail; take another --out", path));
    }

    /// @return whether every file was done.
    bool Run() {
        std::vector<std::thread> threads;
        for (unsigned i = 1; i < GetThreadCount(); ++i)
            threads.emplace_back([this] { Work(); });
        Work();
        for (auto & thread : threads)
            thread.join();
        Signals::ThrowIfAborted();
        return allDone;
    }

private:
    unsigned GetThreadCount() const {
        unsigned const wanted = session.GetSettings().threads;
        unsigned const count = wanted != 0 ? wanted : std::max(1u, std::thread::hardware_concurrency());
        return static_cast<unsigned>(std::min<std::size_t>(count, settings.in.size()));
    }

    std::string GetTarget(std::string const & path, char const * extension) const {
        bool const isSeparated = settings.folder.ends_with('/');
        return fmt::format("{}{}{}.{}", settings.folder, isSeparated ? "" : "/", GetStem(path), extension);
    }

    void Work() {
        for (;;) {
            std::size_t const index = next.fetch_add(1);
            if (index >= settings.in.size())
                return;
            try {
                if (!session.Try(settings.in[index], [&] { Make(settings.in[index]); }))
                    allDone = false;
            } catch (Interrupted const &) {
                return; // `Run` throws it anew
            }
            progress.Show(double(++doneCount) / static_cast<double>(settings.in.size()));
        }
    }

    void Make(std::string const & path) {
        Signals::ThrowIfAborted();
        SourceFile source(session, path, settings.reading);
        Admission::Ticket const ticket(admission, source.GetDecodedBytes());
        Progress ownProgress(session.GetMessages(), settings.in.size() == 1 ? path : std::string());
        ownProgress.BeginStep(0.5);
        Size const stored = source.GetSize(), size = ChooseSize(stored);
        int const level = ChooseLevel(stored, size);
        auto picture = source.Decode(level, ownProgress);
        ownProgress.BeginStep(0.1);
        picture.bitmap = Resample(picture.bitmap, level, stored, size, ownProgress);
        picture.bitmap = MakeUpright(picture.bitmap, picture.orientation, ownProgress);
        picture.orientation = 1;
        picture.metadata.clear(); // nobody looks for it in a thumbnail

        bool const isOpaque = IsOpaque(picture.bitmap);
        WriteSettings writing;
        writing.quality = settings.quality;
        writing.noClobber = settings.noClobber;
        ColourSettings colours;
        colours.format = GetFormat(picture.bitmap.GetFormat());
        PictureWriter writer(session, GetTarget(path, isOpaque ? "jpg" : "png"), writing, colours);
        writer.Write(std::move(picture), ownProgress, PictureWriter::Say::Nothing);
    }

    /// Never larger than the picture.
    Size ChooseSize(Size const & from) const {
        double const scale = std::min(1.0, double(settings.size) / std::max(from.width, from.height));
        auto const shrink = [&](int length) { return std::max(1, static_cast<int>(length * scale + 0.5)); };
        return {shrink(from.width), shrink(from.height)};
    }

    /// Thumbnails are for screens: grey or RGB in 8 bits.
    static Raster::Format GetFormat(Raster::Format format) {
        return Raster::GetColourSpace(format) == Raster::ColourSpaceGrey ? Raster::IA8 : Raster::RGBA8;
    }

    Session & session;
    ThumbnailSettings const & settings;
    Admission admission;
    Progress progress;
    std::atomic<std::size_t> next{0}, doneCount{0};
    std::atomic<bool> allDone{true};
};
}

bool RunThumbnail(Session & session, ThumbnailSettings const & settings) {
    Batch batch(session, settings);
    batch.CheckNames();
    if (!session.Try(settings.folder, [&] { MakeFolder(settings.folder); }))
        return false;
    session.PrepareForPixels();
    return batch.Run();
}
}
