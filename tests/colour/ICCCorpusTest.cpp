// Profiles of other makers, from the folder icc in the one that RASTER_CORPUS names.
#include "colour/ColourTesting.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <map>

namespace Raster {
namespace {
struct Facts {
    ColourSpace space; ///< of none: refused
    unsigned version;
    bool isLinear;
    double gamma;
};

// Bytes 8, 9 and 16 to 19 of the files, and what their names say of the curves; scRGB is linear.
std::map<std::string, Facts> const expectations = {
    {"AdobeCompat-v4.icc", {ColourSpaceRGB, 0x0420, false, 2.2}},
    {"CGATS001Compat-v2-micro.icc", {ColourSpaceCMYK, 0x0210, false, 2.2}},
    {"Gray-elle-V2-g10.icc", {ColourSpaceGrey, 0x0220, true, 1.0}},
    {"Gray-elle-V4-g22.icc", {ColourSpaceGrey, 0x0430, false, 2.2}},
    {"gen_fogra39_cmyk_printer.icc", {ColourSpaceCMYK, 0x0220, false, 2.2}},
    {"sGrey-v4.icc", {ColourSpaceGrey, 0x0420, false, 2.2}},
    {"sRGB-elle-V2-g10.icc", {ColourSpaceRGBUF, 0x0220, true, 1.0}},
    {"sRGB-elle-V4-g10.icc", {ColourSpaceRGBUF, 0x0430, true, 1.0}},
    {"sRGB-v2-nano.icc", {ColourSpaceRGB, 0x0210, false, 2.2}},
    {"sRGB-v4.icc", {ColourSpaceRGB, 0x0420, false, 2.2}},
    {"scRGB-v2.icc", {ColourSpaceRGBUF, 0x0210, true, 1.0}},
    {"toosmall.icc", {ColourSpaceNone, 0, false, 0}},
};

class ICCCorpus : public testing::Test {
protected:
    void SetUp() override {
        char const * const corpus = std::getenv("RASTER_CORPUS");
        if (!corpus || !std::filesystem::is_directory(std::filesystem::path(corpus) / "icc"))
            GTEST_SKIP() << "RASTER_CORPUS names no folder with profiles";
        for (auto const & entry : std::filesystem::directory_iterator(std::filesystem::path(corpus) / "icc"))
            if (entry.path().extension() == ".icc")
                files.push_back(entry.path());
        std::ranges::sort(files);
    }
    static Profile Load(std::filesystem::path const & path) {
        return Manager().AddProfileFromDisk(Kernel::Path(path.c_str()), /*asDefaultCMYK=*/false);
    }

    std::vector<std::filesystem::path> files;
};

TEST_F(ICCCorpus, ProfilesAreWhatTheyAre) {
    std::size_t known = 0;
    for (auto const & path : files) {
        auto const expected = expectations.find(path.filename());
        if (expected == expectations.end())
            continue;
        ++known;
        auto const & facts = expected->second;
        auto const profile = Load(path);
        EXPECT_EQ(facts.space != ColourSpaceNone, static_cast<bool>(profile)) << path;
        if (!profile)
            continue;
        EXPECT_EQ(facts.space, profile->GetColourSpace()) << path;
        EXPECT_EQ(facts.version, profile->GetVersion()) << path;
        EXPECT_EQ(facts.isLinear, profile->IsLinear()) << path;
        EXPECT_NEAR(facts.gamma, profile->GetApproximateGamma(), 0.1) << path;
    }
    EXPECT_EQ(expectations.size(), known) << "files are missing";
}

TEST_F(ICCCorpus, EveryOneIsRefusedOrWorks) {
    auto & manager = Manager();
    auto const sRGB = manager.GetDefaultProfile(ColourSpaceRGB);
    for (auto const & path : files) {
        auto const profile = Load(path);
        if (!profile)
            continue;
        EXPECT_EQ(profile, Load(path)) << path;
        for (auto const format : {RGBA8, RGBA16, IA8, IA16, CMYKA8, LABA16, RGBAUF})
            if (profile->CanApplyTo(format)) {
                auto * const transform =
                    manager.GetTransformForProfiles(format, profile, RGBA8, sRGB, Intent::Perceptual, true);
                unsigned char const in[16] = {200, 100, 50, 25, 10, 5};
                unsigned char out[4] = {0, 0, 0, 77};
                ICCManager::DoTransform(transform, in, out, 1);
                EXPECT_EQ(77, out[3]) << path;
            }
    }
}
}
}
