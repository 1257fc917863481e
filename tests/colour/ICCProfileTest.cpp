#include "colour/ICCProfile.h"

#include "colour/ColourTesting.h"
#include "kernel/HashAccumulator.h"

#include <gtest/gtest.h>

namespace Raster {
namespace {
namespace Synthetic = SyntheticProfiles;

Kernel::Counted<ICCProfile> Read(Synthetic::Bytes const & bytes, bool expected = true) {
    auto const profile = Kernel::DynamicCast<ICCProfile>(ICCProfile::CreateObject());
    EXPECT_EQ(expected, profile->SetRawData(bytes.data(), bytes.size()));
    return profile;
}

std::uint64_t HashOf(ICCProfile const & profile) {
    Kernel::HashAccumulator accumulator;
    profile.AccumulateHash(accumulator);
    return accumulator.GetHash();
}

std::vector<Format> FormatsOf(ICCProfile const & profile) {
    std::vector<Format> result;
    for (std::uint32_t format = 0; format <= formatCount; ++format)
        if (profile.CanApplyTo(static_cast<Format>(format)))
            result.push_back(static_cast<Format>(format));
    return result;
}

TEST(ICCProfile, IsEmptyWhenMadeForTheSerialiser) {
    auto const profile = Kernel::DynamicCast<ICCProfile>(ICCProfile::CreateObject());
    EXPECT_EQ(nullptr, profile->GetHandle());
    EXPECT_EQ(ColourSpaceNone, profile->GetColourSpace());
    EXPECT_TRUE(FormatsOf(*profile).empty());
    EXPECT_FALSE(profile->IsDevicePrinter());
    EXPECT_FALSE(profile->IsDeviceLink());
    EXPECT_EQ(0u, profile->GetVersion());
    EXPECT_TRUE(profile->GetRawData().empty());
    EXPECT_FALSE(profile->IsStandard());
    EXPECT_FALSE(profile->IsLinear());
    EXPECT_EQ(2.2, profile->GetApproximateGamma());
}

TEST(ICCProfile, ColourSpaceFollowsTheSignatureAndLinearity) {
    auto const rgb = Read(Synthetic::Take(Synthetic::CreateRGB("rgb", 1.8, 1.8, 1.8)));
    EXPECT_EQ(ColourSpaceRGB, rgb->GetColourSpace());
    EXPECT_EQ((std::vector{RGBA8, RGBA16}), FormatsOf(*rgb));
    EXPECT_NEAR(1.8, rgb->GetApproximateGamma(), 0.01);

    auto const linear = Read(Synthetic::Take(Synthetic::CreateRGB("linear", 1, 1, 1)));
    EXPECT_EQ(ColourSpaceRGBUF, linear->GetColourSpace());
    EXPECT_EQ((std::vector{RGBAUF}), FormatsOf(*linear));
    EXPECT_TRUE(linear->IsLinear());
    EXPECT_EQ(1.0, linear->GetApproximateGamma());

    auto const grey = Read(Synthetic::Take(Synthetic::CreateGrey("grey", 2.5)));
    EXPECT_EQ(ColourSpaceGrey, grey->GetColourSpace());
    EXPECT_EQ((std::vector{IA8, IA16}), FormatsOf(*grey));
    EXPECT_NEAR(2.5, grey->GetApproximateGamma(), 0.01);
    EXPECT_FALSE(grey->IsLinear());
    EXPECT_TRUE(Read(Synthetic::Take(Synthetic::CreateGrey("straight grey", 1)))->IsLinear());

    auto const lab = Read(Synthetic::Take(cmsCreateLab4Profile(nullptr)));
    EXPECT_EQ(ColourSpaceLAB, lab->GetColourSpace());
    EXPECT_EQ((std::vector{LABA16}), FormatsOf(*lab));
    EXPECT_EQ(2.2, lab->GetApproximateGamma()) << "has no curve to tell";

    auto const press = Read(Synthetic::Take(Synthetic::CreateCMYK("press")));
    EXPECT_EQ(ColourSpaceCMYK, press->GetColourSpace());
    EXPECT_EQ((std::vector{CMYKA8}), FormatsOf(*press));
    EXPECT_TRUE(press->IsDevicePrinter());
    EXPECT_FALSE(press->IsDeviceLink());

    auto const other = Read(Synthetic::Take(Synthetic::CreateEmpty("six", cmsSigHsvData, cmsSigLinkClass)));
    EXPECT_EQ(ColourSpaceNone, other->GetColourSpace());
    EXPECT_TRUE(FormatsOf(*other).empty());
    EXPECT_TRUE(other->IsDeviceLink());
}

TEST(ICCProfile, VersionIsTheUpperHalfOfTheHeaders) {
    EXPECT_EQ(0x0430u, Read(Synthetic::Take(Synthetic::CreateEmpty("four three", cmsSigRgbData)))->GetVersion());
    EXPECT_EQ(0x0210u, Read(Synthetic::Take(cmsCreateLab2Profile(nullptr)))->GetVersion());
}

TEST(ICCProfile, BlueCurveIsNotAskedForLinearity) {
    EXPECT_TRUE(Read(Synthetic::Take(Synthetic::CreateRGB("blue", 1, 1, 2.2)))->IsLinear());
    EXPECT_FALSE(Read(Synthetic::Take(Synthetic::CreateRGB("red", 2.2, 1, 1)))->IsLinear());
    EXPECT_FALSE(Read(Synthetic::Take(Synthetic::CreateRGB("green", 1, 2.2, 1)))->IsLinear());
}

TEST(ICCProfile, GammaIsThatOfGreen) {
    EXPECT_NEAR(1.5, Read(Synthetic::Take(Synthetic::CreateRGB("three", 2.4, 1.5, 1)))->GetApproximateGamma(), 0.01);
}

TEST(ICCProfile, MissingRedCurveLeavesTheDefaults) {
    for (auto const missing : {cmsSigRedTRCTag, cmsSigGreenTRCTag, cmsSigBlueTRCTag}) {
        auto const profile = Synthetic::CreateEmpty("missing", cmsSigRgbData);
        cmsToneCurve * const straight = cmsBuildGamma(nullptr, 1.0);
        for (auto const tag : {cmsSigRedTRCTag, cmsSigGreenTRCTag, cmsSigBlueTRCTag})
            if (tag != missing)
                cmsWriteTag(profile, tag, straight);
        cmsFreeToneCurve(straight);
        auto const read = Read(Synthetic::Take(profile));
        EXPECT_FALSE(read->IsLinear());
        EXPECT_EQ(2.2, read->GetApproximateGamma());
    }
}

TEST(ICCProfile, FailedEstimateIsTracedAndGives22) {
    // A curve that is no power: the spread of the exponents is too wide to call one of them the gamma.
    std::vector<cmsUInt16Number> samples(256);
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<cmsUInt16Number>(i < 128 ? 0 : 65535);
    samples.back() = 65535;
    auto const profile = Synthetic::CreateEmpty("steps", cmsSigRgbData);
    cmsToneCurve * const steps = cmsBuildTabulatedToneCurve16(nullptr, 256, samples.data());
    for (auto const tag : {cmsSigRedTRCTag, cmsSigGreenTRCTag, cmsSigBlueTRCTag})
        cmsWriteTag(profile, tag, steps);
    cmsFreeToneCurve(steps);
    TraceCapture messages;
    EXPECT_EQ(2.2, Read(Synthetic::Take(profile))->GetApproximateGamma());
    EXPECT_EQ((std::vector<std::string>{"gamma estimation failed for steps\n"}), messages.Take());
}

TEST(ICCProfile, BytesThatAreNoProfileLeaveNoHandle) {
    auto bytes = Synthetic::Take(Synthetic::CreateRGB("whole", 2.2, 2.2, 2.2));
    bytes[36] = 'x'; // the signature of the format
    auto const profile = Read(bytes, false);
    EXPECT_EQ(nullptr, profile->GetHandle());
    EXPECT_EQ(ColourSpaceNone, profile->GetColourSpace());
    EXPECT_TRUE(FormatsOf(*profile).empty());
    EXPECT_FALSE(profile->SetRawData(nullptr, 10));
    EXPECT_FALSE(profile->SetRawData(bytes.data(), 0));
    EXPECT_FALSE(profile->SetRawData(bytes.data(), ICCManager::largestProfileBytes + 1)) << "refused unread";
}

TEST(ICCProfile, NamesOutsideASCIIAreReadAsLatin1) {
    auto const profile = Synthetic::CreateRGB("", 2.2, 2.2, 2.2);
    cmsMLU * const text = cmsMLUalloc(nullptr, 1);
    cmsMLUsetWide(text, "en", "US", L"B\u00fcro");
    cmsWriteTag(profile, cmsSigProfileDescriptionTag, text);
    cmsMLUfree(text);
    EXPECT_EQ("B\xc3\xbcro", std::string(Read(Synthetic::Take(profile))->GetProfileName().GetView()));
}

TEST(ICCProfile, TimeOfCreationAndDigestDoNotMakeAnother) {
    auto const bytes = Synthetic::Take(Synthetic::CreateRGB("masked", 2.2, 2.2, 2.2));
    auto const profile = Read(bytes);
    for (std::size_t i = 0; i < 132; ++i) {
        auto changed = bytes;
        changed[i] ^= 1;
        auto const other = Kernel::DynamicCast<ICCProfile>(ICCProfile::CreateObject());
        other->SetRawData(changed.data(), changed.size()); // may fail, and has the bytes all the same
        bool const isMasked = (i >= 24 && i < 36) || (i >= 84 && i < 100);
        if (!other->GetHandle())
            continue;
        EXPECT_EQ(isMasked, profile->CompareMembers(*other)) << "byte " << i;
        EXPECT_EQ(isMasked, HashOf(*profile) == HashOf(*other)) << "byte " << i;
    }
    auto longer = bytes;
    longer.push_back(0);
    EXPECT_FALSE(profile->CompareMembers(*Read(longer)));
}

TEST(ICCProfile, NameMakesAnother) {
    auto const bytes = Synthetic::Take(Synthetic::CreateRGB("first name", 2.2, 2.2, 2.2));
    auto const one = Add(bytes, "one name"), other = Add(bytes, "other name");
    ASSERT_TRUE(one && other);
    EXPECT_NE(one, other);
    EXPECT_FALSE(one->CompareMembers(*other));
}

TEST(ICCProfile, EqualBytesAreOneObjectHoweverTheyCame) {
    auto const bytes = Synthetic::Take(Synthetic::CreateRGB("equal bytes", 2.2, 2.2, 2.2));
    auto const added = Add(bytes);
    auto later = BytesOf(added);
    later[25] ^= 3; // another year
    EXPECT_EQ(added, Profile::ConsolidateObjectSacrifice(Read(BytesOf(added))));
    EXPECT_EQ(added, Profile::ConsolidateObjectSacrifice(Read(later)));
    EXPECT_EQ(added, Add(bytes));
}

TEST(ICCProfile, BuiltInsOfAnotherProcessAreTheSame) {
    for (auto const space : {ColourSpaceGrey, ColourSpaceRGB, ColourSpaceLAB, ColourSpaceRGBUF}) {
        auto const profile = Manager().GetDefaultProfile(space);
        auto bytes = BytesOf(profile);
        for (std::size_t i = 24; i < 36; ++i)
            bytes[i] = 1;
        EXPECT_EQ(profile, Profile::ConsolidateObjectSacrifice(Read(bytes))) << NameOf(profile);
    }
}
}
}
