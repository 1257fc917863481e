#include "colour/ICCManager.h"

#include "colour/ColourTesting.h"
#include "kernel/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

namespace Raster {
namespace {
namespace Synthetic = SyntheticProfiles;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> NamesOf(ICCManager::Profiles const & profiles) {
    std::vector<std::string> result;
    for (auto const & profile : profiles)
        result.push_back(NameOf(profile));
    return result;
}

/// The green curve at `x`.
double Evaluate(Profile const & profile, double x) {
    auto const * const curve = static_cast<cmsToneCurve const *>(cmsReadTag(profile->GetHandle(), cmsSigGreenTRCTag));
    return cmsEvalToneCurveFloat(curve, static_cast<float>(x));
}

TEST(ICCManager, MakesItsDefaultsOnFirstUse) {
    ICCManager::CreateInstance();
    auto & manager = Manager();
    EXPECT_EQ(&manager, &ICCManager::GetInstance());
    EXPECT_EQ(&manager, &ICCManager::GetInstanceInternal());
    auto const sRGB = manager.GetDefaultProfile(ColourSpaceRGB), linear = manager.GetDefaultProfile(ColourSpaceRGBUF);
    auto const grey = manager.GetDefaultProfile(ColourSpaceGrey), lab = manager.GetDefaultProfile(ColourSpaceLAB);
    ASSERT_TRUE(sRGB && linear && grey && lab);
    EXPECT_EQ(ColourSpaceRGB, sRGB->GetColourSpace());
    EXPECT_EQ(ColourSpaceRGBUF, linear->GetColourSpace());
    EXPECT_EQ(ColourSpaceGrey, grey->GetColourSpace());
    EXPECT_EQ(ColourSpaceLAB, lab->GetColourSpace());
    EXPECT_EQ(0x0210u, lab->GetVersion());
    EXPECT_NEAR(2.2, grey->GetApproximateGamma(), 0.01);
    EXPECT_TRUE(sRGB->IsStandard());
    EXPECT_EQ(NameOf(sRGB) + " (Linear)", NameOf(linear));
    EXPECT_EQ(linear, manager.GetLinearRGBProfile(sRGB));
    EXPECT_EQ(nullptr, manager.GetDefaultProfile(ColourSpaceNone));
    EXPECT_EQ(nullptr, manager.GetDefaultProfile(static_cast<ColourSpace>(6)));
    for (auto const & profile : {sRGB, linear, grey, lab})
        EXPECT_EQ(profile, manager.GetProfileForString(profile->GetProfileName()));
    manager.Init();
    EXPECT_EQ(sRGB, manager.GetDefaultProfile(ColourSpaceRGB)) << "the defaults are made once";
}

TEST(ICCManager, ProfilesThatAreBuiltHereBearNoTime) {
    auto & manager = Manager();
    auto const linear = manager.GetDefaultProfile(ColourSpaceRGBUF);
    for (auto const & profile :
         {manager.GetDefaultProfile(ColourSpaceRGB), linear, manager.GetDefaultProfile(ColourSpaceGrey),
          manager.GetDefaultProfile(ColourSpaceLAB), manager.GetGammaCorrectedRGBProfile(linear, 1.7)}) {
        auto const bytes = profile->GetRawData();
        std::vector<std::uint8_t> const time(bytes.begin() + 24, bytes.begin() + 36);
        EXPECT_EQ((std::vector<std::uint8_t>{7, 208, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0}), time) << NameOf(profile);
    }
}

TEST(ICCManager, DefaultsByFormatAreThoseOfTheirSpace) {
    auto & manager = Manager();
    EXPECT_EQ(manager.GetDefaultProfile(ColourSpaceRGB), manager.GetDefaultProfileForFormat(RGBA8));
    EXPECT_EQ(manager.GetDefaultProfile(ColourSpaceRGB), manager.GetDefaultProfileForFormat(RGBA16));
    EXPECT_EQ(manager.GetDefaultProfile(ColourSpaceRGBUF), manager.GetDefaultProfileForFormat(RGBAUF));
    EXPECT_EQ(manager.GetDefaultProfile(ColourSpaceGrey), manager.GetDefaultProfileForFormat(IA8));
    EXPECT_EQ(manager.GetDefaultProfile(ColourSpaceGrey), manager.GetDefaultProfileForFormat(IA16));
    EXPECT_EQ(manager.GetDefaultProfile(ColourSpaceLAB), manager.GetDefaultProfileForFormat(LABA16));
    EXPECT_EQ(manager.GetDefaultProfile(ColourSpaceCMYK), manager.GetDefaultProfileForFormat(CMYKA8));
    for (auto const format : {A8, A16, AF, NoFormat, static_cast<Format>(11)})
        EXPECT_EQ(nullptr, manager.GetDefaultProfileForFormat(format));
    EXPECT_TRUE(ICCManager::CanApplyProfileToFormat(manager.GetDefaultProfile(ColourSpaceRGB), RGBA8));
    EXPECT_FALSE(ICCManager::CanApplyProfileToFormat(manager.GetDefaultProfile(ColourSpaceRGB), IA8));
    EXPECT_FALSE(ICCManager::CanApplyProfileToFormat(nullptr, RGBA8));
}

TEST(ICCManager, DefaultCMYKIsWhatWasLoadedAsSuch) {
    TemporaryDirectory const directory;
    auto const press = Synthetic::Take(Synthetic::CreateCMYK("default press"));
    PutFile(directory.GetPath("press.icc"), std::string(press.begin(), press.end()));
    auto & manager = Manager();
    EXPECT_EQ(nullptr, manager.GetDefaultProfile(ColourSpaceCMYK));
    EXPECT_TRUE(Add(Synthetic::Take(Synthetic::CreateCMYK("press in memory"))));
    EXPECT_EQ(nullptr, manager.GetDefaultProfile(ColourSpaceCMYK)) << "only a file can be loaded as such";
    Kernel::Path const path(directory.GetPath("press.icc").c_str());
    auto const first = manager.AddProfileFromDisk(path, /*asDefaultCMYK=*/false);
    EXPECT_EQ(nullptr, manager.GetDefaultProfile(ColourSpaceCMYK));
    EXPECT_EQ(first, manager.AddProfileFromDisk(path, /*asDefaultCMYK=*/true)) << "the entry that is there already";
    EXPECT_EQ(first, manager.GetDefaultProfile(ColourSpaceCMYK));
    EXPECT_EQ(first, manager.GetDefaultProfileForFormat(CMYKA8));

    auto const other = Synthetic::Take(Synthetic::CreateCMYK("other press"));
    PutFile(directory.GetPath("other.icc"), std::string(other.begin(), other.end()));
    auto const second = manager.AddProfileFromDisk(Kernel::Path(directory.GetPath("other.icc").c_str()), true);
    EXPECT_EQ("other press", NameOf(second));
    EXPECT_EQ(second, manager.GetDefaultProfile(ColourSpaceCMYK));
    EXPECT_EQ(nullptr, manager.GetLinearRGBProfile(second)) << "CMYK has no linear companion";
}

TEST(ICCManager, LoadingAFileTwiceLeavesOneEntry) {
    TemporaryDirectory const directory;
    auto const bytes = Synthetic::Take(Synthetic::CreateRGB("loaded twice", 2.2, 2.2, 2.2));
    PutFile(directory.GetPath("twice.icc"), std::string(bytes.begin(), bytes.end()));
    Kernel::Path const path(directory.GetPath("twice.icc").c_str());
    auto & manager = Manager();
    TraceCapture messages;
    auto const first = manager.AddProfileFromDisk(path, false);
    auto const countBefore = manager.GetAvailableProfiles().size();
    ASSERT_TRUE(first);
    EXPECT_FALSE(first->IsStandard());
    EXPECT_EQ("loaded twice", NameOf(first));
    EXPECT_EQ(first, manager.AddProfileFromDisk(path, false));
    EXPECT_EQ(countBefore, manager.GetAvailableProfiles().size());
    EXPECT_THAT(messages.Take(), IsEmpty());
    EXPECT_TRUE(manager.GetProfileForString("loaded twice (Linear)")) << "its companion came along";
}

TEST(ICCManager, OtherBytesOfAKnownNameAreAnsweredWithTheFirstAndTraced) {
    auto const first = Add(Synthetic::Take(Synthetic::CreateRGB("same name", 2.2, 2.2, 2.2)));
    TraceCapture messages;
    EXPECT_EQ(first, Add(Synthetic::Take(Synthetic::CreateRGB("same name", 1.8, 1.8, 1.8))));
    EXPECT_THAT(messages.Take(),
                ElementsAre("another profile is registered as same name already, which is used instead\n"));
    EXPECT_NEAR(2.2, first->GetApproximateGamma(), 0.01);
}

TEST(ICCManager, BadFilesAndBytesGiveNull) {
    TemporaryDirectory const directory;
    PutFile(directory.GetPath("empty"), "");
    PutFile(directory.GetPath("text"), std::string(1000, 'x'));
    auto & manager = Manager();
    for (auto const * const name : {"missing", "empty", "text", "."})
        EXPECT_EQ(nullptr, manager.AddProfileFromDisk(Kernel::Path(directory.GetPath(name).c_str()), true)) << name;
    EXPECT_EQ(nullptr, manager.AddProfileFromDisk(Kernel::Path(), false));
    EXPECT_EQ(nullptr, manager.AddProfileFromMemory(nullptr, 0, nullptr));
    EXPECT_EQ(nullptr, manager.AddProfileFromMemory(nullptr, 128, "name"));
    EXPECT_EQ(nullptr, manager.AddProfileFromMemory("x", 1, "name"));
    EXPECT_EQ(nullptr, manager.CreateProfile(nullptr));
    EXPECT_EQ(nullptr, manager.GetProfileForString("name"));
}

TEST(ICCManager, ProfileWithoutADescriptionNeedsAName) {
    auto const profile = cmsCreateProfilePlaceholder(nullptr);
    cmsSetProfileVersion(profile, 4.3);
    cmsSetColorSpace(profile, cmsSigRgbData);
    cmsSetPCS(profile, cmsSigXYZData);
    auto const bytes = Synthetic::Take(profile);
    EXPECT_EQ(nullptr, Add(bytes));
    auto const named = Add(bytes, "named");
    EXPECT_EQ("named", NameOf(named));
    EXPECT_EQ(named, Manager().GetProfileForString("named"));
}

TEST(ICCManager, GivenNameReplacesTheDescription) {
    auto const profile = Add(Synthetic::Take(Synthetic::CreateRGB("described", 2, 2, 2)), "given");
    EXPECT_EQ("given", NameOf(profile));
    EXPECT_EQ(nullptr, Manager().GetProfileForString("described"));
    EXPECT_TRUE(Manager().GetProfileForString("given (Linear)"));
}

TEST(ICCManager, WrapsHandlesAsStandardProfiles) {
    auto const profile = Manager().CreateProfile(Synthetic::CreateRGB("wrapped", 1.9, 1.9, 1.9));
    ASSERT_TRUE(profile);
    EXPECT_TRUE(profile->IsStandard());
    EXPECT_EQ("wrapped", NameOf(profile));
    EXPECT_EQ(profile, Manager().GetProfileForString("wrapped"));
    EXPECT_EQ(profile, Manager().CreateProfile(Synthetic::CreateRGB("wrapped", 1.9, 1.9, 1.9)));
    auto const nameless = cmsCreateProfilePlaceholder(nullptr);
    cmsSetProfileVersion(nameless, 4.3);
    EXPECT_EQ(nullptr, Manager().CreateProfile(nameless));
}

TEST(ICCManager, RegisteringReplacesTheEntryOfThatName) {
    auto const first = Add(Synthetic::Take(Synthetic::CreateRGB("replaced", 2.2, 2.2, 2.2)));
    auto const second = Manager().CreateProfile(Synthetic::CreateRGB("replaced", 1.8, 1.8, 1.8));
    EXPECT_NE(first, second);
    EXPECT_EQ(second, Manager().GetProfileForString("replaced"));
    Manager().Register(first);
    EXPECT_EQ(first, Manager().GetProfileForString("replaced"));
    Manager().Register(nullptr);
}

TEST(ICCManager, ListsGoByColourSpaceAndThenByName) {
    Add(Synthetic::Take(Synthetic::CreateRGB("zz list", 2.2, 2.2, 2.2)));
    Add(Synthetic::Take(Synthetic::CreateRGB("aa list", 2.2, 2.2, 2.2)));
    Add(Synthetic::Take(Synthetic::CreateGrey("mm list", 2.2)));
    Add(Synthetic::Take(Synthetic::CreateEmpty("hh list", cmsSigHsvData)));
    auto & manager = Manager();
    auto const all = manager.GetAvailableProfiles();
    for (std::size_t i = 1; i < all.size(); ++i) {
        auto const place = [&](std::size_t at) { return std::pair(all[at]->GetColourSpace(), NameOf(all[at])); };
        EXPECT_LT(place(i - 1), place(i));
    }
    auto const rgb = manager.GetAvailableProfilesFor(ColourSpaceRGB);
    EXPECT_THAT(NamesOf(rgb), testing::IsSupersetOf({"aa list", "zz list"}));
    EXPECT_EQ(rgb, manager.GetAvailableProfilesForFormat(RGBA8));
    EXPECT_EQ(rgb, manager.GetAvailableProfilesForFormat(RGBA16));
    EXPECT_EQ(manager.GetAvailableProfilesFor(ColourSpaceRGBUF), manager.GetAvailableProfilesForFormat(RGBAUF));
    EXPECT_EQ(manager.GetAvailableProfilesFor(ColourSpaceGrey), manager.GetAvailableProfilesForFormat(IA16));
    EXPECT_THAT(NamesOf(manager.GetAvailableProfilesFor(ColourSpaceNone)), testing::Contains("hh list"));
    for (auto const format : {A8, A16, AF, NoFormat})
        EXPECT_THAT(manager.GetAvailableProfilesForFormat(format), IsEmpty());
    std::size_t sum = 0;
    for (std::uint32_t space = 0; space <= 5; ++space)
        sum += manager.GetAvailableProfilesFor(static_cast<ColourSpace>(space)).size();
    EXPECT_EQ(sum, all.size());
}

TEST(ICCManager, LinearProfileIsItsOwnLinearProfile) {
    auto & manager = Manager();
    auto const linear = manager.GetDefaultProfile(ColourSpaceRGBUF);
    EXPECT_EQ(linear, manager.GetLinearRGBProfile(linear));
    EXPECT_EQ(nullptr, manager.GetLinearRGBProfile(nullptr));
    EXPECT_EQ(nullptr, manager.GetLinearRGBProfile(manager.GetDefaultProfile(ColourSpaceGrey)));
    EXPECT_EQ(nullptr, manager.GetLinearRGBProfile(manager.GetDefaultProfile(ColourSpaceLAB)));
    auto const bare = Add(Synthetic::Take(Synthetic::CreateEmpty("no primaries", cmsSigRgbData)));
    ASSERT_TRUE(bare);
    EXPECT_EQ(nullptr, manager.GetLinearRGBProfile(bare));
}

TEST(ICCManager, PrimariesThatNameNoChromaticityGiveNoLinearProfile) {
    auto const profile = Synthetic::CreateRGB("black primary", 2.2, 2.2, 2.2);
    cmsCIEXYZ const nothing{0, 0, 0};
    cmsWriteTag(profile, cmsSigGreenColorantTag, &nothing);
    EXPECT_EQ(nullptr, Manager().GetLinearRGBProfile(Add(Synthetic::Take(profile))));
}

TEST(ICCManager, GammaCorrectedProfileNeedsALinearOne) {
    auto & manager = Manager();
    EXPECT_EQ(nullptr, manager.GetGammaCorrectedRGBProfile(nullptr, 2.2));
    EXPECT_EQ(nullptr, manager.GetGammaCorrectedRGBProfile(manager.GetDefaultProfile(ColourSpaceRGB), 2.2));
    auto const grey = Add(Synthetic::Take(Synthetic::CreateGrey("linear grey", 1)));
    ASSERT_TRUE(grey->IsLinear());
    EXPECT_EQ(nullptr, manager.GetGammaCorrectedRGBProfile(grey, 2.2));
    auto const linear = manager.GetDefaultProfile(ColourSpaceRGBUF);
    EXPECT_EQ(nullptr, manager.GetGammaCorrectedRGBProfile(linear, NAN));
    EXPECT_EQ(nullptr, manager.GetGammaCorrectedRGBProfile(linear, INFINITY));
}

TEST(ICCManager, GammaOfZeroIsTheCurveOfSRGBUnderTheNameOf22) {
    auto & manager = Manager();
    auto const linear = manager.GetDefaultProfile(ColourSpaceRGBUF);
    auto const corrected = manager.GetGammaCorrectedRGBProfile(linear, 0);
    ASSERT_TRUE(corrected);
    EXPECT_EQ(NameOf(linear) + " (gamma 2.2)", NameOf(corrected));
    EXPECT_EQ(2.2, corrected->GetApproximateGamma());
    EXPECT_FALSE(corrected->IsLinear());
    for (double x = 0; x <= 1; x += 1.0 / 64) {
        double const expected = x > 0.04045 ? std::pow((x + 0.055) / 1.055, 2.4) : x / 12.92;
        EXPECT_NEAR(expected, Evaluate(corrected, x), 1e-4) << x;
    }
    EXPECT_EQ(corrected, manager.GetGammaCorrectedRGBProfile(linear, 1e-7)) << "within a millionth of 0";
}

TEST(ICCManager, GammaCorrectedProfileHasTheExponentAsked) {
    auto & manager = Manager();
    auto const linear = manager.GetDefaultProfile(ColourSpaceRGBUF);
    auto const corrected = manager.GetGammaCorrectedRGBProfile(linear, 1.8);
    ASSERT_TRUE(corrected);
    EXPECT_EQ(NameOf(linear) + " (gamma 1.8)", NameOf(corrected));
    EXPECT_EQ(1.8, corrected->GetApproximateGamma());
    for (double x = 0; x <= 1; x += 1.0 / 64)
        EXPECT_NEAR(std::pow(x, 1.8), Evaluate(corrected, x), 1e-4) << x;
    auto const straight = manager.GetGammaCorrectedRGBProfile(linear, 1.0);
    ASSERT_TRUE(straight);
    EXPECT_FALSE(straight->IsLinear()) << "asked for as corrected, whatever its curve";
    EXPECT_EQ(1.0, straight->GetApproximateGamma());
}

TEST(ICCManager, LinearAndCorrectedProfilesInvertEachOther) {
    auto & manager = Manager();
    auto const sRGB = manager.GetDefaultProfile(ColourSpaceRGB), linear = manager.GetDefaultProfile(ColourSpaceRGBUF);
    for (double const gamma : {0.0, 1.0, 1.8, 2.2, 2.6}) {
        auto const corrected = manager.GetGammaCorrectedRGBProfile(linear, gamma);
        auto const again = manager.GetLinearRGBProfile(corrected);
        ASSERT_TRUE(corrected && again) << gamma;
        ASSERT_TRUE(again->IsLinear());
        // Out of the linear space into the corrected one, and back into its linear companion.
        auto const floats = ICCManager::_TYPE_RGBA_FLT();
        auto * const there =
            ICCManager::CreateTransform(linear->GetHandle(), floats, corrected->GetHandle(), floats, 1, 0);
        auto * const back =
            ICCManager::CreateTransform(corrected->GetHandle(), floats, again->GetHandle(), floats, 1, 0);
        ASSERT_TRUE(there && back);
        for (int i = 0; i <= 1000; ++i) {
            float const x = float(i) / 1000;
            float const colour[4] = {x, 1 - x, x * x, 1};
            float middle[4]{}, result[4]{};
            ICCManager::DoTransform(there, reinterpret_cast<unsigned char const *>(colour),
                                    reinterpret_cast<unsigned char *>(middle), 1);
            ICCManager::DoTransform(back, reinterpret_cast<unsigned char const *>(middle),
                                    reinterpret_cast<unsigned char *>(result), 1);
            for (int channel = 0; channel < 3; ++channel)
                EXPECT_NEAR(colour[channel], result[channel], 1e-3) << "gamma " << gamma << " at " << x;
        }
        ICCManager::DeleteTransform(there);
        ICCManager::DeleteTransform(back);
    }
    // The companion of sRGB with sRGB's curve is sRGB.
    auto const corrected = manager.GetGammaCorrectedRGBProfile(linear, 0);
    for (auto const tag : {cmsSigRedColorantTag, cmsSigGreenColorantTag, cmsSigBlueColorantTag}) {
        auto const * const expected = static_cast<cmsCIEXYZ const *>(cmsReadTag(sRGB->GetHandle(), tag));
        auto const * const actual = static_cast<cmsCIEXYZ const *>(cmsReadTag(corrected->GetHandle(), tag));
        EXPECT_NEAR(expected->X, actual->X, 1e-3);
        EXPECT_NEAR(expected->Y, actual->Y, 1e-3);
        EXPECT_NEAR(expected->Z, actual->Z, 1e-3);
    }
}

TEST(ICCManager, GammaForAProfileIsOneOrTheUsual) {
    auto & manager = Manager();
    EXPECT_EQ(1.0f, ICCManager::GetGammaForProfile(manager.GetDefaultProfile(ColourSpaceRGBUF)));
    EXPECT_EQ(2.2f, ICCManager::GetGammaForProfile(manager.GetDefaultProfile(ColourSpaceRGB)));
    EXPECT_EQ(2.2f,
              ICCManager::GetGammaForProfile(Add(Synthetic::Take(Synthetic::CreateRGB("one eight", 1.8, 1.8, 1.8)))));
    EXPECT_EQ(2.2f, ICCManager::GetGammaForProfile(nullptr));
}

TEST(ICCManager, RefusesPiecesOfMemoryThatNoProfileNeeds) {
    // A table of 255 steps in three dimensions, claimed by a header of a few bytes: 8-bit lookup, 3 in, 15 out.
    auto const profile = Synthetic::CreateEmpty("claims", cmsSigRgbData);
    cmsSetPCS(profile, cmsSigLabData);
    std::vector<std::uint8_t> tag = {'m', 'f', 't', '1', 0, 0, 0, 0, 3, 15, 255, 0};
    tag.resize(48 + 3 * 256);
    cmsWriteRawTag(profile, cmsSigAToB0Tag, tag.data(), cmsUInt32Number(tag.size()));
    auto const added = Add(Synthetic::Take(profile));
    ASSERT_TRUE(added);
    EXPECT_EQ(nullptr, cmsReadTag(added->GetHandle(), cmsSigAToB0Tag));
}
}
}
