#include "colour/ICCProfileSet.h"

#include "colour/ColourTesting.h"
#include "kernel/HashAccumulator.h"

#include <gtest/gtest.h>

namespace Raster {
namespace {
using ProfileSet = ICCManager::ICCProfileSet;

TEST(ICCProfileSet, IsEmptyAtFirst) {
    ProfileSet const set;
    for (std::uint32_t space = 0; space <= 6; ++space)
        EXPECT_EQ(nullptr, set.GetProfileFor(static_cast<ColourSpace>(space)));
    EXPECT_EQ(Intent::Perceptual, set.GetIntent());
    EXPECT_FALSE(set.GetBlackPointCompensation());
    EXPECT_EQ(Kernel::ClassUID("ICCP"), set.GetObjectClassProperties().GetClassUID());
    EXPECT_EQ(1, set.GetObjectClassProperties().GetSchemaVersion());
    EXPECT_TRUE(Kernel::DynamicCast<ProfileSet>(set.GetObjectClassProperties().CreateObject()));
}

TEST(ICCProfileSet, FormatsShareTheSlotOfTheirSpace) {
    struct Slot {
        ColourSpace space;
        std::vector<Format> formats;
    };
    auto const profile = Manager().GetDefaultProfile(ColourSpaceRGB);
    for (auto const & slot :
         {Slot{ColourSpaceRGB, {RGBA8, RGBA16}}, Slot{ColourSpaceRGBUF, {RGBAUF}}, Slot{ColourSpaceGrey, {IA8, IA16}},
          Slot{ColourSpaceCMYK, {CMYKA8}}, Slot{ColourSpaceLAB, {LABA16}}})
        for (auto const format : slot.formats) {
            ProfileSet byFormat, bySpace;
            byFormat.SetProfileForFormat(format, profile);
            bySpace.SetProfile(slot.space, profile);
            for (std::uint32_t space = 0; space <= 6; ++space)
                EXPECT_EQ(space == slot.space, byFormat.GetProfileFor(static_cast<ColourSpace>(space)) == profile);
            for (std::uint32_t other = 0; other <= formatCount; ++other) {
                bool const isInSlot = std::ranges::count(slot.formats, static_cast<Format>(other)) != 0;
                EXPECT_EQ(isInSlot, bySpace.GetProfileForFormat(static_cast<Format>(other)) == profile) << other;
            }
            EXPECT_TRUE(byFormat.CompareMembers(bySpace));
        }
}

TEST(ICCProfileSet, IgnoresWhatHasNoSlot) {
    ProfileSet set;
    auto const profile = Manager().GetDefaultProfile(ColourSpaceRGB);
    set.SetProfile(ColourSpaceNone, profile);
    set.SetProfile(static_cast<ColourSpace>(6), profile);
    for (auto const format : {A8, A16, AF, NoFormat, static_cast<Format>(11)})
        set.SetProfileForFormat(format, profile);
    EXPECT_TRUE(set.CompareMembers(ProfileSet()));
}

TEST(ICCProfileSet, CopiesAreEqualAndIndependent) {
    ProfileSet set;
    set.SetProfile(ColourSpaceRGB, Manager().GetDefaultProfile(ColourSpaceRGB));
    set.SetIntent(Intent::Saturation);
    set.SetBlackPointCompensation(true);
    ProfileSet copy = set;
    auto const hash = [](ProfileSet const & of) {
        Kernel::HashAccumulator accumulator;
        of.AccumulateHash(accumulator);
        return accumulator.GetHash();
    };
    EXPECT_TRUE(set.CompareMembers(copy));
    EXPECT_EQ(hash(set), hash(copy));
    copy.SetIntent(Intent::Perceptual);
    EXPECT_EQ(Intent::Saturation, set.GetIntent());
    EXPECT_FALSE(set.CompareMembers(copy));
    copy.SetIntent(Intent::Saturation);
    copy.SetBlackPointCompensation(false);
    EXPECT_FALSE(set.CompareMembers(copy));
    copy.SetBlackPointCompensation(true);
    copy.SetProfile(ColourSpaceRGB, nullptr);
    EXPECT_FALSE(set.CompareMembers(copy));
}
}
}
