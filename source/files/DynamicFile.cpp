#include "files/DynamicFile.h"

#include "colour/ICCManager.h"
#include "files/FileFormat.h"
#include "files/ImageLimits.h"
#include "files/SupportedFormats.h"
#include "kernel/Trace.h"

#include <algorithm>
#include <initializer_list>
#include <utility>

namespace Raster {
namespace {
constexpr double commonDPI = 96.0;

// Whether there is anything to look at: what every open would fail with otherwise.
bool IsReadable(FileSource const & source, std::string & why) {
    auto const stream = source.Open(why);
    if (stream && stream->GetSize() == 0)
        why = "is empty";
    return stream && stream->GetSize() != 0;
}

bool IsOneOf(FileType type, std::initializer_list<FileType> types) {
    return std::find(types.begin(), types.end(), type) != types.end();
}

bool CanBeWritten(FileTarget const & target, FileType type) {
    if (target.path)
        return IsOneOf(type, {FileTypeJPEG, FileTypePNG, FileTypeTIFF, FileTypeHDPhoto, FileTypeOpenEXR, FileTypeHDR});
    if (target.data)
        return IsOneOf(type, {FileTypePNG, FileTypeTIFF, FileTypeHDPhoto});
    return target.stream && IsOneOf(type, {FileTypeJPEG, FileTypePNG, FileTypeTIFF, FileTypeHDPhoto});
}
}

DynamicFile::DynamicFile() = default;
DynamicFile::DynamicFile(DynamicFile const &) = default;
DynamicFile & DynamicFile::operator=(DynamicFile const &) = default;
DynamicFile::~DynamicFile() = default;

bool DynamicFile::Fail(std::string reason) {
    Kernel::Trace("DynamicFile: %1\r\n", reason.c_str());
    openFailure = std::move(reason);
    return false;
}

bool DynamicFile::Commit(FileFormat const & newFormat, Kernel::Counted<Kernel::Countable> newWrapper) {
    fileFormat = &newFormat;
    wrapper = std::move(newWrapper);
    type = newFormat.type;
    openFailure.clear();
    return true;
}

bool DynamicFile::CreateForReading(FileSource const & source, FileReadOptions const & options) {
    std::string why;
    if (!IsReadable(source, why))
        return Fail(why);
    try {
        Kernel::Counted<Kernel::Countable> opened;
        auto const * const found = FindFileFormatIf([&](FileFormat const & format) {
            if (format.isFile(source))
                opened = format.open(source, options);
            return static_cast<bool>(opened);
        });
        return found ? Commit(*found, std::move(opened)) : Fail("is not a picture of a known type");
    } catch (ImageLimitError const & error) {
        return Fail(error.what());
    }
}

bool DynamicFile::Create(char const * path, bool rawFirst, bool rawSecond, bool convertEXR) {
    return CreateForReading(FileSource(path), {rawFirst, rawSecond, convertEXR});
}

bool DynamicFile::Create(Kernel::Counted<CompressedRasterData const> data, bool rawFirst, bool rawSecond) {
    return CreateForReading(FileSource(std::move(data)), {rawFirst, rawSecond, false});
}

bool DynamicFile::CreateForWriting(FileTarget const & target, int width, int height, ExportOptions const & options,
                                   FileType newType, Format format) {
    auto const * const found = CanBeWritten(target, newType) ? FindFileFormat(newType) : nullptr;
    if (!found)
        return Fail("this type of file can't be written there");
    std::string why;
    auto created = found->create(target, width, height, options, format, why);
    return created ? Commit(*found, std::move(created))
                   : Fail(why.empty() ? "a picture of this format and size can't be written" : why);
}

bool DynamicFile::Create(char const * path, int width, int height, ExportOptions const & options, FileType newType,
                         Format format, bool convertEXR) {
    FileTarget target;
    target.path = path;
    target.convertEXR = convertEXR;
    return CreateForWriting(target, width, height, options, newType, format);
}

bool DynamicFile::Create(Kernel::Counted<CompressedRasterData> data, int width, int height,
                         ExportOptions const & options, FileType newType, Format format) {
    FileTarget target;
    target.data = std::move(data);
    return CreateForWriting(target, width, height, options, newType, format);
}

bool DynamicFile::Create(Kernel::Counted<Kernel::OutStreamSeekable> stream, int width, int height,
                         ExportOptions const & options, FileType newType, Format format, bool convertEXR) {
    FileTarget target;
    target.stream = std::move(stream);
    target.convertEXR = convertEXR;
    return CreateForWriting(target, width, height, options, newType, format);
}

Format DynamicFile::GetFormat() const { return wrapper ? fileFormat->getFormat(*wrapper) : NoFormat; }

int DynamicFile::GetWidth() const { return wrapper ? fileFormat->getWidth(*wrapper) : 0; }

int DynamicFile::GetHeight() const { return wrapper ? fileFormat->getHeight(*wrapper) : 0; }

double DynamicFile::GetDPI() const {
    if (!wrapper)
        return 0.0;
    return fileFormat->getDPI ? fileFormat->getDPI(*wrapper) : commonDPI;
}

Kernel::Consolidated<ICCProfile> DynamicFile::GetProfile() const {
    Kernel::Consolidated<ICCProfile> profile;
    if (wrapper && fileFormat->getProfile)
        profile = fileFormat->getProfile(*wrapper);
    if (!profile && GetFormat() == RGBAUF)
        profile = ICCManager::GetInstance().GetDefaultProfileForFormat(RGBAUF);
    return profile;
}

bool DynamicFile::IsProfileFallback() const {
    return wrapper && fileFormat->isProfileFallback && fileFormat->isProfileFallback(*wrapper);
}

Kernel::Counted<CameraParams const> DynamicFile::GetCameraParams() const { return nullptr; }

int DynamicFile::GetOrientation() const {
    return wrapper && fileFormat->getOrientation ? fileFormat->getOrientation(*wrapper) : 1;
}

bool DynamicFile::HasFailed() const { return !openFailure.empty() || (wrapper && fileFormat->hasFailed(*wrapper)); }

bool DynamicFile::EndedEarly() const { return wrapper && fileFormat->endedEarly && fileFormat->endedEarly(*wrapper); }

std::string DynamicFile::GetWarning() const {
    return wrapper && fileFormat->getWarning ? fileFormat->getWarning(*wrapper) : std::string();
}

std::string DynamicFile::GetFailure() const {
    if (!openFailure.empty() || !wrapper)
        return openFailure;
    return fileFormat->getFailure(*wrapper);
}

Format DynamicFile::GetSupportedFormat(FileType type, Format format) noexcept {
    return GetSupportedFormatFor(type, format);
}

bool DynamicFile::IsSupportedFormat(FileType type, Format format) noexcept {
    return IsSupportedFormatFor(type, format);
}
}
