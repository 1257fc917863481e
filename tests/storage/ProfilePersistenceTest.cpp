// Colour profiles in documents: stored once, by their bytes, and the set of them that a document works in.
#include "colour/ICCProfileSet.h"
#include "colour/SyntheticProfiles.h"
#include "storage/DocumentEnvironment.h"

#include <algorithm>

namespace Raster {
namespace {
using Profile = ICCManager::Profile;
using ProfileSet = ICCManager::ICCProfileSet;

class ProfilePersistenceTest : public DocumentTest {
protected:
    static Profile Add(SyntheticProfiles::Bytes const & bytes, char const * name = nullptr) {
        return ICCManager::GetInstance().AddProfileFromMemory(bytes.data(), static_cast<unsigned>(bytes.size()), name);
    }
    static Profile AddRGB(char const * name, double gamma) {
        return Add(SyntheticProfiles::Take(SyntheticProfiles::CreateRGB(name, gamma, gamma, gamma)));
    }
    ProfileSet SaveAndLoad(ProfileSet const & set) const {
        Save(Create(), set);
        auto const document = Open();
        ProfileSet loaded;
        EXPECT_TRUE(loaded.Load(*Parse(document), *document, 1));
        return loaded;
    }
};
}

TEST_F(ProfilePersistenceTest, SetComesBackWithEachProfileInItsSlot) {
    auto const & manager = ICCManager::GetInstance();
    ProfileSet set;
    set.SetProfile(ColourSpaceRGB, AddRGB("stored rgb", 1.7));
    set.SetProfile(ColourSpaceRGBUF, manager.GetDefaultProfile(ColourSpaceRGBUF));
    set.SetProfile(ColourSpaceCMYK, AddRGB("stored as cmyk", 1.9)); // whether it fits isn't asked
    set.SetProfile(ColourSpaceGrey, manager.GetDefaultProfile(ColourSpaceGrey));
    set.SetProfile(ColourSpaceLAB, manager.GetDefaultProfile(ColourSpaceLAB));
    set.SetIntent(Intent::Saturation);
    set.SetBlackPointCompensation(true);
    EXPECT_TRUE(SaveAndLoad(set).CompareMembers(set));
    auto const stored = Open();
    EXPECT_EQ(CountItems(stored, "ShOb"), 5u);
    using Tag = Kernel::IDTag;
    for (auto const tag : {Tag("RGBP"), Tag("RGUP"), Tag("CMYP"), Tag("IAPr"), Tag("LABP"), Tag("Intn"), Tag("BPCm")})
        EXPECT_TRUE(HasProperty(stored, tag)) << tag.GetText().data();
}

TEST_F(ProfilePersistenceTest, EmptySlotsStayEmptyAndEqualProfilesAreStoredOnce) {
    ProfileSet set;
    set.SetProfile(ColourSpaceGrey, ICCManager::GetInstance().GetDefaultProfile(ColourSpaceGrey));
    set.SetProfile(ColourSpaceLAB, ICCManager::GetInstance().GetDefaultProfile(ColourSpaceGrey));
    EXPECT_TRUE(SaveAndLoad(set).CompareMembers(set));
    EXPECT_EQ(CountItems(Open(), "ShOb"), 1u);
    EXPECT_FALSE(HasProperty(Open(), "RGBP"));
}

TEST_F(ProfilePersistenceTest, ProfileWithoutADescriptionComesBack) {
    auto bytes = SyntheticProfiles::Take(SyntheticProfiles::CreateRGB("described", 1.6, 1.6, 1.6));
    constexpr char tag[] = "desc", other[] = "zzzz";
    auto const at = std::search(bytes.begin() + 128, bytes.end(), tag, tag + 4);
    ASSERT_NE(at, bytes.end());
    std::copy_n(other, 4, at);
    ASSERT_FALSE(Add(bytes)) << "it has no name of its own";
    ProfileSet set;
    set.SetProfile(ColourSpaceRGB, Add(bytes, "a name given to it"));
    ASSERT_TRUE(set.GetProfileFor(ColourSpaceRGB));
    auto const loaded = SaveAndLoad(set).GetProfileFor(ColourSpaceRGB);
    ASSERT_TRUE(loaded);
    EXPECT_TRUE(std::ranges::equal(loaded->GetRawData(), set.GetProfileFor(ColourSpaceRGB)->GetRawData()));
    EXPECT_EQ(loaded->GetColourSpace(), ColourSpaceRGB);
    EXPECT_NEAR(loaded->GetApproximateGamma(), 1.6, 0.01);
}
}
