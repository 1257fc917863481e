#include "host/Picture.h"

#include "files/ImageLimits.h"
#include "host/Failure.h"
#include "host/Formats.h"
#include "host/Metadata.h"
#include "host/OutputFile.h"
#include "host/Signals.h"
#include "host/Text.h"
#include "kernel/FastFileInStream.h"
#include "pixel/MemoryManager.h"
#include "storage/CompressedRasterData.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace Host {
namespace {
using Raster::CompressedRasterData;

/// What a user can do about a path that can't be read; nothing is thrown if the path seems fine.
void CheckPath(std::string const & path) {
    if (path.empty())
        throw Failure("an empty name is no file; name a picture");
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0)
        throw Failure(fmt::format("can't be opened ({}); see that the name is right", DescribeError(errno)));
    if (S_ISDIR(status.st_mode))
        throw Failure("is a folder; name the pictures in it");
    if (S_ISFIFO(status.st_mode))
        throw Failure("is a pipe; use '-' to read standard input");
    if (!S_ISREG(status.st_mode))
        throw Failure("is a device; name a file");
    if (::access(path.c_str(), R_OK) != 0)
        throw Failure(fmt::format("can't be read ({}); see who owns it", DescribeError(errno)));
    if (status.st_size == 0)
        throw Failure("is empty; see where it came from");
}
}

std::string AddHelp(std::string failure, char const * help) {
    if (failure.empty())
        failure = "it is damaged";
    if (failure.find("largestDecodedBytes") != failure.npos)
        help = "a larger --decode-limit opens it";
    return failure + "; " + help;
}

SourceFile::SourceFile(Session & givenSession, std::string givenPath, ReadSettings const & givenSettings)
    : session(givenSession), path(std::move(givenPath)), settings(givenSettings) {
    if (path == standardStream)
        data = ReadStandardInput();
    else
        CheckPath(path);
    Open();
}

void SourceFile::Open() {
    bool const isKnown = data ? file.Create(data, false, false) : file.Create(path.c_str(), false, false, false);
    if (!isKnown)
        throw Failure(AddHelp(file.GetFailure(), "JPEG and PNG files can be read"));
    if (file.GetFormat() == Raster::NoFormat || file.GetWidth() <= 0 || file.GetHeight() <= 0)
        throw Failure(fmt::format("this {} file can't be read: {}", GetTypeName(file.GetFileType()),
                                  AddHelp(file.GetFailure(), "another program may open it and save it anew")));
}

Kernel::Counted<CompressedRasterData> SourceFile::ReadStandardInput() const {
    std::uint64_t const limit =
        std::min(Raster::GetImageLimits().largestDecodedBytes, Raster::MemoryManager::Instance().GetDRAMLimit());
    Kernel::Counted<CompressedRasterData> const bytes(new CompressedRasterData);
    std::uint64_t size = 0;
    for (;;) {
        constexpr std::uint64_t firstStep = 1 << 16;
        if (size == bytes->GetSize())
            bytes->SetSize(std::max(firstStep, size * 2));
        ssize_t const count = ::read(STDIN_FILENO, bytes->GetData() + size, bytes->GetSize() - size);
        if (count < 0 && errno != EINTR)
            throw Failure(fmt::format("standard input can't be read ({}); see what writes it", DescribeError(errno)));
        Signals::ThrowIfAborted();
        if (count == 0)
            break;
        size += count < 0 ? 0 : static_cast<std::uint64_t>(count);
        if (size > limit)
            throw Failure(fmt::format("standard input is larger than {}; write it into a file, or take a larger "
                                      "--memory and --decode-limit",
                                      FormatBytes(limit)));
    }
    if (size == 0)
        throw Failure("standard input is empty; see what writes it");
    bytes->SetSize(size);
    return bytes;
}

std::uint64_t SourceFile::GetDecodedBytes() const {
    return std::uint64_t(file.GetWidth()) * static_cast<std::uint64_t>(file.GetHeight()) *
           GetPixelBytes(file.GetFormat());
}

std::vector<std::string> SourceFile::FindMetadataOfFile() const {
    if (data) {
        Raster::CompressedRasterDataInStream stream(data);
        return FindMetadata(stream);
    }
    constexpr std::size_t bufferBytes = 4096; // most of what is passed over is larger
    auto const stream = Kernel::FastFileInStream::Open(path.c_str(), bufferBytes);
    return stream ? FindMetadata(*stream) : std::vector<std::string>();
}

Profile SourceFile::ChooseProfile() const {
    if (!settings.assumeProfile.empty() && (file.IsProfileFallback() || !file.GetProfile())) {
        auto profile = FindProfile(settings.assumeProfile);
        if (!Raster::ICCManager::CanApplyProfileToFormat(profile, file.GetFormat()))
            throw Failure(fmt::format("the profile {} isn't for {}; name another one with --assume-profile",
                                      settings.assumeProfile, GetFormatName(file.GetFormat())));
        return profile;
    }
    return file.IsProfileFallback() ? Profile() : file.GetProfile();
}

Picture SourceFile::Decode(int level, Progress & progress) {
    session.PrepareForPixels();
    Picture picture;
    picture.name = path;
    picture.dpi = file.GetDPI();
    picture.orientation = file.GetOrientation();
    picture.profile = ChooseProfile();
    picture.isAssumed = picture.profile && file.IsProfileFallback();
    picture.metadata = FindMetadataOfFile();
    picture.bitmap = DrawPixels(level, progress);
    if (!picture.bitmap.GetCore())
        throw Failure("is too large to be held in tiles; cut it into parts");
    TellOfDamage();
    file = Raster::DynamicFile(); // its decoded block goes
    data = {};
    return picture;
}

DynamicBitmap SourceFile::DrawPixels(int level, Progress & progress) {
    constexpr char const * help = "another program may open it and save it anew";
    DynamicBitmap bitmap;
    try {
        bitmap = DrawLevel(file, level, progress);
    } catch (std::bad_alloc const &) {
        throw;
    } catch (std::exception const & error) {
        Signals::ThrowIfAborted();
        throw Failure(AddHelp(error.what(), help));
    }
    Signals::ThrowIfAborted();
    if (file.HasFailed())
        throw Failure(AddHelp(file.GetFailure(), help));
    return bitmap;
}

void SourceFile::TellOfDamage() const {
    auto const warning = file.GetWarning();
    if (!file.EndedEarly() && warning.empty())
        return;
    std::string const damage = file.EndedEarly() ? "the file ends early" : fmt::format("is damaged ({})", warning);
    if (settings.strict)
        throw Failure(damage + "; leave --strict out to take what is there");
    session.GetMessages().Warn(path, damage + ", a part of the picture may be wrong; --strict refuses such files");
}

Profile FindProfile(std::string const & pathOrName) {
    auto & manager = Raster::ICCManager::GetInstance();
    if (auto profile = manager.GetProfileForString(pathOrName.c_str()))
        return profile;
    if (::access(pathOrName.c_str(), R_OK) != 0)
        throw Failure(
            fmt::format("there is no profile or file '{}'; `raster profile list` names the profiles", pathOrName));
    auto profile = manager.AddProfileFromDisk(Kernel::Path(pathOrName.c_str()), /*asDefaultCMYK=*/false);
    if (!profile)
        throw Failure(fmt::format("'{}' is no colour profile that can be used; name another file", pathOrName));
    return profile;
}

std::string TellOfTurning(Picture const & picture) {
    return fmt::format("the file says how to turn the picture ({}), which isn't kept; {}", picture.orientation,
                       picture.orientationHelp);
}

bool IsOpaque(DynamicBitmap const & bitmap) {
    auto const box = bitmap.GetInverseAlphaBoundingBox();
    return box.Intersect({0, 0, bitmap.GetWidth(), bitmap.GetHeight()}).IsEmpty();
}
}
