#pragma once

#include "colour/ICCManager.h"
#include "files/DynamicFile.h"
#include "host/Levels.h"
#include "host/Progress.h"
#include "host/Session.h"
#include "storage/CompressedRasterData.h"
#include "storage/DynamicBitmap.h"

#include <string>
#include <vector>

namespace Host {
using Raster::DynamicBitmap;
using Profile = Raster::ICCManager::Profile;

/// A decoded picture, and what its file said of it. The file itself isn't needed any more.
struct Picture {
    std::string name; ///< as given on the command line
    DynamicBitmap bitmap;
    double dpi = 0;
    int orientation = 1; ///< 1 to 8, by EXIF
    std::string orientationHelp = "--auto-orient turns it";
    Profile profile;                   ///< embedded, or the one that the user told to assume; null if neither
    bool isAssumed = false;            ///< the user told it
    std::vector<std::string> metadata; ///< what a written file will lack
};

/// A picture file that is open for reading: its header is known, its pixels aren't decoded.
class SourceFile {
public:
    /// @param path  or "-" for standard input, which is read whole.
    /// Throws `Failure`: the file isn't there, isn't a picture, is broken, or is over a limit.
    SourceFile(Session & givenSession, std::string path, ReadSettings const & givenSettings);

    std::string const & GetPath() const { return path; }
    Raster::DynamicFile const & GetFile() const { return file; }
    /// Of the decoded pixels, as a bitmap holds them.
    std::uint64_t GetDecodedBytes() const;

    /// The bytes of standard input; null for a path.
    Kernel::Counted<Raster::CompressedRasterData> const & GetStandardInput() const { return data; }

    Size GetSize() const { return {file.GetWidth(), file.GetHeight()}; }

    /// Decodes, and drops the file: its pixels are in memory once then. Throws `Failure`, `Interrupted`.
    /// @param level  how often the picture is halved.
    Picture Decode(int level, Progress & progress);

private:
    void Open();
    Kernel::Counted<Raster::CompressedRasterData> ReadStandardInput() const;
    Profile ChooseProfile() const;
    std::vector<std::string> FindMetadataOfFile() const;
    DynamicBitmap DrawPixels(int level, Progress & progress);
    void TellOfDamage() const;

    Session & session;
    std::string path;
    ReadSettings settings;
    Kernel::Counted<Raster::CompressedRasterData> data; // of standard input; null for a path
    Raster::DynamicFile file;
};

/// What to say of a picture whose orientation isn't 1 and which stays as it is stored.
std::string TellOfTurning(Picture const & picture);

/// The library's words on a picture that can't be read, and what a user can do; if it went over a limit, that.
std::string AddHelp(std::string failure, char const * help);

/// The profile that a user names: a file, or one of the registry. Throws `Failure`.
Profile FindProfile(std::string const & pathOrName);

/// Whether every pixel has full alpha.
bool IsOpaque(DynamicBitmap const & bitmap);
}
