/// Writes files of every type and reads them back; docs/formats.md holds what comes of it. With RASTER_WRITE_PAGES in
/// the environment the page is brought up to date instead of compared.
#include "colour/ICCManager.h"
#include "files/DynamicFile.h"
#include "files/FileFormat.h"
#include "kernel/MemoryOutStream.h"
#include "transfer/TransferPixels.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

namespace Raster {
namespace {
char const pagePath[] = RASTER_SOURCE_DIR "/docs/formats.md";
char const beginMark[] = "<!-- made by FormatsPageTest: begin -->\n",
           endMark[] = "<!-- made by FormatsPageTest: end -->\n";

constexpr char const * typeNames[] = {"JPEG", "PNG", "TIFF",    "WebP",         "HD Photo", "RAW", "GIF", "JPEG 2000",
                                      "BMP",  "TGA", "OpenEXR", "Radiance HDR", "",         "",    "HEIF"};
constexpr char const * formatNames[] = {"RGBA8", "RGBA16", "IA8",      "IA16",   "CMYKA8", "LABA16",
                                        "A8",    "A16",    "NoFormat", "RGBAUF", "AF"};

std::string Code(Format format) { return "`" + std::string(formatNames[format]) + "`"; }

std::string Join(std::vector<std::string> const & words) {
    std::string line;
    for (auto const & word : words)
        line += (line.empty() ? "" : ", ") + word;
    return line.empty() ? "-" : line;
}

std::vector<Format> GetFormats() {
    std::vector<Format> formats;
    for (unsigned number = 0; number < formatCount; ++number)
        if (Format(number) != NoFormat)
            formats.push_back(Format(number));
    return formats;
}

class FormatsPageTest : public StorageTest {
protected:
    FormatsPageTest() {
        std::string pattern = (std::filesystem::temp_directory_path() / "raster-test-XXXXXX").string();
        path = std::string(mkdtemp(pattern.data())) + "/file";
    }
    ~FormatsPageTest() override {
        std::error_code ignored;
        std::filesystem::remove_all(std::filesystem::path(path).parent_path(), ignored);
    }

    // A bitmap through a file of this type. False if it can't be written.
    bool Pass(FileType type, DynamicBitmap const & bitmap, ExportOptions const & options = {}) {
        DynamicFile out;
        Format const format = DynamicFile::GetSupportedFormat(type, bitmap.GetFormat());
        if (!out.Create(path.c_str(), bitmap.GetWidth(), bitmap.GetHeight(), options, type, format))
            return false;
        EXPECT_TRUE(Feed(out, bitmap, nullptr)) << out.GetFailure();
        out = DynamicFile();
        EXPECT_TRUE(back.Create(path.c_str())) << back.GetFailure();
        EXPECT_EQ(back.GetFileType(), type);
        read.Create(back.GetWidth(), back.GetHeight(), back.GetFormat(), MipmapModeNone, HardwareCachePolicy());
        Draw(read, back, nullptr, nullptr, 0, 0);
        EXPECT_FALSE(back.HasFailed()) << back.GetFailure();
        return true;
    }

    std::string path;
    DynamicFile back;
    DynamicBitmap read;
};

// Noise, opaque or in part transparent: nothing that a lossy codec would hit by chance.
DynamicBitmap MakeNoise(Format format, bool opaque) {
    return VisitFormat(format, [&](auto tuple) {
        using Tuple = decltype(tuple);
        auto picture = MakePicture<Tuple>(64, 48, 1);
        for (auto & pixel : picture.pixels)
            if (opaque)
                pixel[Tuple::channelCount - 1] = typename Tuple::Storage(Tuple::First::maximum);
        return DynamicBitmap(MakeBitmap<Tuple>(picture));
    });
}

bool AreEqual(DynamicBitmap const & a, DynamicBitmap const & b) {
    if (a.GetFormat() != b.GetFormat())
        return false;
    return VisitFormat(a.GetFormat(), [&](auto tuple) {
        using Tuple = decltype(tuple);
        return ReadAll(*a.GetTyped<Tuple>()) == ReadAll(*b.GetTyped<Tuple>());
    });
}

bool IsOpaque(DynamicBitmap const & bitmap) { return bitmap.GetInverseAlphaBoundingBox().IsEmpty(); }

std::string FormatDPI(double dpi) {
    std::ostringstream text;
    text << dpi;
    return text.str();
}
}

// What opens as what is told by writing each format and opening the file.
struct Facts {
    std::vector<std::string> opened, exact, near, converted;
    bool keepsAlpha = false;
    std::string dpi, profile;
};

TEST_F(FormatsPageTest, SaysWhatEachTypeOfFileKeeps) {
    std::string table = "| | Bitmaps written as they are | Nearly | Converted first | Opens as | Alpha | Resolution | "
                        "Colour profile |\n|---|---|---|---|---|---|---|---|\n";
    FindFileFormatIf([&](FileFormat const & entry) {
        auto const type = entry.type;
        Facts facts;
        std::vector<Format> opened;
        for (Format const format : GetFormats()) {
            Format const written = DynamicFile::GetSupportedFormat(type, format);
            auto const bitmap = MakeNoise(format, /*opaque=*/false);
            if (written == NoFormat || !Pass(type, bitmap))
                continue;
            if (std::find(opened.begin(), opened.end(), back.GetFormat()) == opened.end())
                opened.push_back(back.GetFormat());
            facts.keepsAlpha |= written == format && !IsOpaque(read);
            if (written != format)
                facts.converted.push_back(Code(format) + " to " + Code(written));
            else if (back.GetFormat() != format)
                facts.exact.push_back(Code(format) + " (opens as " + Code(back.GetFormat()) + ")");
            else {
                auto const opaque = MakeNoise(format, /*opaque=*/true);
                Pass(type, opaque);
                (AreEqual(opaque, read) ? facts.exact : facts.near).push_back(Code(format));
            }
        }
        for (Format const format : opened)
            facts.opened.push_back(Code(format));

        auto const bitmap = MakeNoise(RGBA8, /*opaque=*/true);
        ExportOptions options;
        options.SetDPI(150.0);
        options.SetICCProfile(ICCManager::GetInstance().GetDefaultProfileForFormat(RGBAUF)); // one that no default is
        if (!Pass(type, bitmap, options))
            return false; // it is only read: no row of its own yet
        facts.dpi = std::abs(back.GetDPI() - 150.0) < 0.5 ? "kept" : "lost";
        facts.profile = back.GetProfile() && !back.IsProfileFallback() ? "kept" : "lost";
        options.SetDPI(0.0);
        options.SetICCProfile(nullptr);
        Pass(type, bitmap, options);
        facts.dpi += "; unstated: " + FormatDPI(back.GetDPI());
        facts.profile +=
            back.IsProfileFallback() ? "; `RGBA8` without one: the default, as a fallback" : "; without one: none";
        Pass(type, MakeNoise(IA8, /*opaque=*/true), options);
        facts.profile += back.GetProfile() ? "; grey: the same" : "; grey: none";

        table += "| " + std::string(typeNames[type]) + " | " + Join(facts.exact) + " | " + Join(facts.near) + " | " +
                 Join(facts.converted) + " | " + Join(facts.opened) + " | " + (facts.keepsAlpha ? "kept" : "lost") +
                 " | " + facts.dpi + " | " + facts.profile + " |\n";
        return false;
    });

    std::ifstream in(pagePath);
    std::string page{std::istreambuf_iterator<char>(in), {}};
    auto const begin = page.find(beginMark), end = page.find(endMark);
    ASSERT_NE(begin, page.npos) << pagePath;
    ASSERT_NE(end, page.npos) << pagePath;
    auto const from = begin + sizeof beginMark - 1;
    if (std::getenv("RASTER_WRITE_PAGES")) {
        page.replace(from, end - from, table);
        std::ofstream(pagePath) << page;
        return;
    }
    EXPECT_EQ(page.substr(from, end - from), table) << "run this test with RASTER_WRITE_PAGES=1 and look at the change";
}
}
