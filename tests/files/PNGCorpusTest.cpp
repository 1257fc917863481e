// PNG files of other makers, PngSuite among them, from the folders png and photo in the one that RASTER_CORPUS names.
#include "files/PNGTesting.h"

#include "colour/ICCManager.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>

namespace Raster {
namespace {
enum class State {
    Sound,
    WithoutPixels, ///< the header is sound, the pixels aren't
    Broken,        ///< begins as a PNG and is none
    Other          ///< doesn't even begin as one
};
enum class Source { None, Fallback, Embedded };

struct Facts {
    State state;
    Format format = NoFormat;
    int width = 0, height = 0;
    bool hasAlpha = false;
    double dpi = 0;
    Source profile = Source::None;
};

Facts Sound(Format format, int width, int height, bool hasAlpha = false, double dpi = 72) {
    return {State::Sound, format, width, height, hasAlpha, dpi, format == RGBA8 ? Source::Fallback : Source::None};
}
Facts Suite(Format format, bool hasAlpha = false) { return Sound(format, 32, 32, hasAlpha); }
Facts Embedded(Format format, int width, int height, bool hasAlpha = false, double dpi = 72) {
    return {State::Sound, format, width, height, hasAlpha, dpi, Source::Embedded};
}

// By the bytes of the files' own chunks.
std::map<std::string, Facts> const expectations = {
    {"basi0g01", Suite(IA8)},
    {"basi0g04", Suite(IA8)},
    {"basi0g08", Suite(IA8)},
    {"basi0g16", Suite(IA16)},
    {"basi2c16", Suite(RGBA16)},
    {"basi3p01", Suite(RGBA8)},
    {"basi3p04", Suite(RGBA8)},
    {"basi3p08", Suite(RGBA8)},
    {"basi4a16", Suite(IA16, true)},
    {"basi6a08", Suite(RGBA8, true)},
    {"basi6a16", Suite(RGBA16, true)},
    {"basn0g01", Suite(IA8)},
    {"basn0g04", Suite(IA8)},
    {"basn0g08", Suite(IA8)},
    {"basn0g16", Suite(IA16)},
    {"basn2c08", Suite(RGBA8)},
    {"basn2c16", Suite(RGBA16)},
    {"basn3p01", Suite(RGBA8)},
    {"basn3p04", Suite(RGBA8)},
    {"basn3p08", Suite(RGBA8)},
    {"basn4a08", Suite(IA8, true)},
    {"basn4a16", Suite(IA16, true)},
    {"basn6a08", Suite(RGBA8, true)},
    {"basn6a16", Suite(RGBA16, true)},
    {"cdfn2c08", Sound(RGBA8, 8, 32)},
    {"cdsn2c08", Sound(RGBA8, 8, 8)}, // equal sides, but no unit
    {"cdun2c08", Sound(RGBA8, 32, 32, false, 25)},
    {"crash_bad_iCCP", {State::Broken}},
    {"crash_badadler", {State::WithoutPixels, IA8, 1, 1, false, 72}},
    {"crash_badcrc", {State::WithoutPixels, IA8, 1, 1, false, 72}},
    {"crash_empty_ancillary", Sound(RGBA8, 1, 1)},
    {"f99n0g04", Suite(IA8)},
    {"g03n2c08", Suite(RGBA8)},
    {"gen_gray8_icc", Embedded(IA8, 96, 64)},
    {"gen_rgb16_icc", Embedded(RGBA16, 96, 64)},
    {"icc_profile", Embedded(RGBA8, 57, 57, true)},
    {"iccp_broken", Embedded(RGBA8, 248, 248, true)}, // broken for others; both codecs take it
    {"iccp_p3", Embedded(RGBA8, 8, 8, true)},
    {"iccp_prophoto", Embedded(RGBA8, 1, 1, false, 240)}, // the codec only warns of its white
    {"oi9n2c16", Suite(RGBA16)},
    {"pp0n2c16", Suite(RGBA16)},
    {"s01i3p01", Sound(RGBA8, 1, 1)},
    {"s01n3p01", Sound(RGBA8, 1, 1)},
    {"s03i3p01", Sound(RGBA8, 3, 3)},
    {"s09i3p02", Sound(RGBA8, 9, 9)},
    {"s39n3p04", Sound(RGBA8, 39, 39)},
    {"tbbn0g04", Suite(IA8, true)},
    {"tbbn2c16", Suite(RGBA16, true)},
    {"tbbn3p08", Suite(RGBA8, true)},
    {"tbgn3p08", Suite(RGBA8, true)},
    {"tbrn2c08", Suite(RGBA8, true)},
    {"tm3n3p02", Suite(RGBA8, true)},
    {"tp0n0g08", Suite(IA8)},
    {"tp0n2c08", Suite(RGBA8)},
    {"tp0n3p08", Suite(RGBA8)},
    {"xc1n0g08", {State::Broken}},
    {"xc9n2c08", {State::Broken}},
    {"xcrn0g04", {State::Broken}},
    {"xcsn0g01", {State::WithoutPixels, IA8, 32, 32, false, 72}},
    {"xd0n2c08", {State::Broken}},
    {"xd9n2c08", {State::Broken}},
    {"xdtn0g01", {State::Broken}},
    {"xhdn0g08", {State::Broken}},
    {"xs1n0g01", {State::Other}},
    {"xs4n0g01", {State::Other}},
};

FileBytes Load(std::filesystem::path const & path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<std::filesystem::path> FindFiles(char const * folder) {
    std::vector<std::filesystem::path> files;
    char const * const corpus = std::getenv("RASTER_CORPUS");
    if (corpus && std::filesystem::is_directory(std::filesystem::path(corpus) / folder))
        for (auto const & entry : std::filesystem::directory_iterator(std::filesystem::path(corpus) / folder))
            if (entry.path().extension() == ".png")
                files.push_back(entry.path());
    std::ranges::sort(files);
    return files;
}

TEST(PNGCorpus, FilesAreWhatTheyAre) {
    auto const files = FindFiles("png");
    if (files.empty())
        GTEST_SKIP() << "RASTER_CORPUS names no folder with PNG files";
    auto const sRGB = ICCManager::GetInstance().GetDefaultProfile(ColourSpaceRGB);
    std::size_t known = 0;
    for (auto const & path : files) {
        auto const expected = expectations.find(path.stem());
        if (expected == expectations.end())
            continue;
        ++known;
        auto const & facts = expected->second;
        DynamicPNG png;
        EXPECT_EQ(facts.state != State::Other, DynamicPNG::IsPNGFile(path.c_str())) << path;
        EXPECT_EQ(facts.format != NoFormat, png.Create(path.c_str())) << path << ": " << png.GetFailure();
        EXPECT_EQ(facts.format, png.GetFormat()) << path;
        EXPECT_EQ(facts.width, png.GetWidth()) << path;
        EXPECT_EQ(facts.height, png.GetHeight()) << path;
        EXPECT_EQ(facts.dpi, png.GetDPI()) << path;
        EXPECT_EQ(facts.profile == Source::Fallback, png.IsProfileFallback()) << path;
        EXPECT_EQ(facts.profile != Source::None, static_cast<bool>(png.GetProfile())) << path;
        EXPECT_TRUE(facts.profile != Source::Fallback || png.GetProfile() == sRGB) << path;
        bool const hasAlpha = png.Dispatch([](auto const & typed) { return typed.HasAlpha(); });
        EXPECT_EQ(facts.hasAlpha, hasAlpha) << path;
        bool const hasPixels = png.Dispatch([](auto const & typed) { return !typed.Decode(nullptr).IsEmpty(); });
        EXPECT_EQ(facts.state == State::Sound, hasPixels) << path;
        EXPECT_EQ(facts.state != State::Sound, png.HasFailed()) << path << ": " << png.GetFailure();
    }
    EXPECT_EQ(expectations.size(), known) << "files are missing";
}

TEST(PNGCorpus, PixelsAreThoseThatTheCodecGives) {
    auto files = FindFiles("png");
    auto const photos = FindFiles("photo");
    files.insert(files.end(), photos.begin(), photos.end());
    if (files.empty())
        GTEST_SKIP() << "RASTER_CORPUS names no folder with PNG files";
    int sound = 0;
    for (auto const & path : files) {
        auto const answer = AskLibpng(Load(path));
        DynamicPNG png;
        EXPECT_EQ(answer.hasHeader, png.Create(path.c_str())) << path;
        if (answer.hasPixels) {
            ++sound;
            ExpectPixels(answer, png, path.filename());
        } else {
            bool const hasPixels = png.Dispatch([](auto const & typed) { return !typed.Decode(nullptr).IsEmpty(); });
            EXPECT_FALSE(hasPixels) << path;
        }
    }
    EXPECT_GE(sound, 50);
}

// At every byte of their beginnings, and here and there after that.
TEST(PNGCorpus, CutFilesAreRefusedOrRead) {
    auto const files = FindFiles("png");
    if (files.empty())
        GTEST_SKIP() << "RASTER_CORPUS names no folder with PNG files";
    for (auto const & path : files) {
        auto const bytes = Load(path);
        for (std::size_t size = 0; size < bytes.size(); size += size < 400 ? 1 : 97) {
            FileBytes const cut(bytes.begin(), bytes.begin() + std::ptrdiff_t(size));
            auto const answer = AskLibpng(cut);
            DynamicPNG png;
            ASSERT_EQ(answer.hasHeader, png.CreateFromStream(StreamOver(cut))) << path << ", " << size;
            bool const hasPixels = png.Dispatch([](auto const & typed) { return !typed.Decode(nullptr).IsEmpty(); });
            ASSERT_EQ(answer.hasPixels, hasPixels) << path << ", " << size;
            ASSERT_EQ(!hasPixels, png.HasFailed()) << path << ", " << size;
        }
    }
}
}
}
