// Profiles of other makers, from the folder icc in the one that RASTER_CORPUS names.
#include "colour/ColourTesting.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
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
    {"Lab-D50-Identity-elle-V2.icc", {ColourSpaceLAB, 0x0210, false, 2.2}},
    {"Lab-D50-Identity-elle-V4.icc", {ColourSpaceLAB, 0x0430, false, 2.2}},
    {"bad.icc", {ColourSpaceNone, 0, false, 0}},
    {"bad_mpe.icc", {ColourSpaceNone, 0, false, 0}}, // without a description
    {"crayons.icc", {ColourSpaceRGB, 0x0400, false, 2.2}},
    {"gen_fogra39_cmyk_printer.icc", {ColourSpaceCMYK, 0x0220, false, 2.2}},
    {"gen_lin_rg_gamma_b.icc", {ColourSpaceRGBUF, 0x0440, true, 1.0}}, // blue isn't asked
    {"ibm-t61.icc", {ColourSpaceRGB, 0x0340, false, 2.4}},
    {"oss-fuzz-testcase-57426.icc", {ColourSpaceNone, 0, false, 0}},
    {"sGrey-v2-magic.icc", {ColourSpaceGrey, 0x0210, false, 2.2}},
    {"sGrey-v4.icc", {ColourSpaceGrey, 0x0420, false, 2.2}},
    {"sRGB-elle-V2-g10.icc", {ColourSpaceRGBUF, 0x0220, true, 1.0}},
    {"sRGB-elle-V4-g10.icc", {ColourSpaceRGBUF, 0x0430, true, 1.0}},
    {"sRGB-v2-magic.icc", {ColourSpaceRGB, 0x0210, false, 2.2}},
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

    static Profile LoadAs(std::filesystem::path const & path, std::string const & name) {
        std::ifstream file(path, std::ios::binary);
        std::vector<char> const bytes(std::istreambuf_iterator<char>(file), {});
        return Manager().AddProfileFromMemory(bytes.data(), unsigned(bytes.size()), name.c_str());
    }
    Profile LoadNamed(std::string const & name) const {
        for (auto const & path : files)
            if (path.filename() == name)
                return Load(path);
        ADD_FAILURE() << name << " is missing";
        return {};
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
        EXPECT_EQ(facts.space != ColourSpaceNone, static_cast<bool>(Load(path))) << path;
        if (facts.space == ColourSpaceNone)
            continue;
        auto const profile = LoadAs(path, path.filename()); // several of them call themselves the same
        ASSERT_TRUE(profile) << path;
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

TEST_F(ICCCorpus, LinearCompanionsAreLinearAndCorrectedOnesComeBack) {
    auto & manager = Manager();
    int companions = 0;
    for (auto const & path : files) {
        auto const profile = Load(path);
        auto const linear = manager.GetLinearRGBProfile(profile);
        auto const space = profile ? profile->GetColourSpace() : ColourSpaceNone;
        if (space != ColourSpaceRGB && space != ColourSpaceRGBUF) {
            EXPECT_EQ(profile && profile->IsLinear() ? profile : nullptr, linear) << path;
            continue;
        }
        ASSERT_TRUE(linear) << path;
        EXPECT_TRUE(linear->IsLinear()) << path;
        EXPECT_EQ(profile->IsLinear(), linear == profile) << path;
        EXPECT_EQ(linear, manager.GetProfileForString(linear->GetProfileName())) << path << " brings its companion";
        auto const corrected = manager.GetGammaCorrectedRGBProfile(linear, 1.8);
        ASSERT_TRUE(corrected) << path;
        EXPECT_EQ(1.8, corrected->GetApproximateGamma()) << path;
        ++companions;
    }
    EXPECT_GE(companions, 10);
}

TEST_F(ICCCorpus, ColoursComeBackFromAPress) {
    auto & manager = Manager();
    auto const press = LoadNamed("gen_fogra39_cmyk_printer.icc"), sRGB = manager.GetDefaultProfile(ColourSpaceRGB);
    ASSERT_TRUE(press);
    EXPECT_TRUE(press->IsDevicePrinter());
    EXPECT_FALSE(press->IsDeviceLink());
    auto * const there =
        manager.GetTransformForProfiles(RGBA8, sRGB, CMYKA8, press, Intent::RelativeColorimetric, true);
    auto * const back = manager.GetTransformForProfiles(CMYKA8, press, RGBA8, sRGB, Intent::RelativeColorimetric, true);
    ASSERT_TRUE(there && back);
    for (unsigned char const level : {90, 128, 180, 220}) { // what any press can print
        unsigned char const in[4] = {level, static_cast<unsigned char>(level * 9 / 10),
                                     static_cast<unsigned char>(level * 8 / 10), 7};
        unsigned char inks[5] = {0, 0, 0, 0, 77}, out[4] = {0, 0, 0, 55};
        ICCManager::DoTransform(there, in, inks, 1);
        ICCManager::DoTransform(back, inks, out, 1);
        EXPECT_EQ(77, inks[4]);
        EXPECT_EQ(55, out[3]);
        for (int channel = 0; channel < 3; ++channel)
            EXPECT_NEAR(in[channel], out[channel], 8) << "channel " << channel << " of level " << int(level);
    }
}

TEST_F(ICCCorpus, AScannerOfInksIsNoDestination) {
    auto & manager = Manager();
    auto const scanner = LoadNamed("CGATS001Compat-v2-micro.icc"), sRGB = manager.GetDefaultProfile(ColourSpaceRGB);
    ASSERT_TRUE(scanner);
    EXPECT_TRUE(manager.GetTransformForProfiles(CMYKA8, scanner, RGBA8, sRGB, Intent::Saturation, false));
    TraceCapture messages;
    for (int i = 0; i < 2; ++i)
        EXPECT_FALSE(manager.GetTransformForProfiles(RGBA8, sRGB, CMYKA8, scanner, Intent::Saturation, false));
    EXPECT_EQ((std::vector<std::string>{"Colour engine failed to create transform between " + NameOf(sRGB) + " and " +
                                        NameOf(scanner) + "\r\n"}),
              messages.Take());
}
}
}
