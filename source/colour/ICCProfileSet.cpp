#include "colour/ICCProfileSet.h"

#include "kernel/HashAccumulator.h"
#include "kernel/InSerialiser.h"
#include "kernel/OutSerialiser.h"
#include "pixel/EnumSerialisers.h"
#include "pixel/FormatFunctions.h"

namespace Raster {
void ICCManager::ICCProfileSet::SetProfile(ColourSpace space, Profile const & profile) {
    if (space == ColourSpaceNone || space > profiles.size())
        return;
    profiles[space - 1] = profile;
    unread[space - 1].Reset();
}

void ICCManager::ICCProfileSet::SetProfileForFormat(Format format, Profile const & profile) {
    SetProfile(GetColourSpace(format), profile);
}

ICCManager::Profile ICCManager::ICCProfileSet::GetProfileFor(ColourSpace space) const {
    return space != ColourSpaceNone && space <= profiles.size() ? profiles[space - 1] : Profile();
}

ICCManager::Profile ICCManager::ICCProfileSet::GetProfileForFormat(Format format) const {
    return GetProfileFor(GetColourSpace(format));
}

Kernel::ClassProperties const & ICCManager::ICCProfileSet::GetClassProperties() {
    static Kernel::ClassProperties const properties(
        "ICCP", /*version=*/1, [] { return Kernel::Counted<Kernel::Serialisable>(new ICCProfileSet); });
    return properties;
}
Kernel::ClassPropertiesBase const & ICCManager::ICCProfileSet::GetObjectClassProperties() const {
    return GetClassProperties();
}

namespace {
// In the order in which they are written.
struct ProfileTag {
    Kernel::IDTag tag;
    ColourSpace space;
};
constexpr ProfileTag profileTags[] = {{"RGBP", ColourSpaceRGB},
                                      {"RGUP", ColourSpaceRGBUF},
                                      {"CMYP", ColourSpaceCMYK},
                                      {"IAPr", ColourSpaceGrey},
                                      {"LABP", ColourSpaceLAB}};
constexpr Kernel::IDTag intentTag("Intn"), compensationTag("BPCm");
}

void ICCManager::ICCProfileSet::Save(Kernel::OutSerialiser & serialiser) const {
    for (auto const & [tag, space] : profileTags)
        serialiser.SaveSharedObject(tag, GetProfileFor(space).Get(), unread[space - 1]);
    serialiser.SaveEnumI(intentTag, IntentEnumSerialiser::GetInstance(), static_cast<int>(intent));
    serialiser.SaveType(compensationTag, blackPointCompensation);
}

bool ICCManager::ICCProfileSet::Load(Kernel::InSerialiser const & serialiser, Kernel::FileStore & store,
                                     unsigned short) {
    for (auto const & [tag, space] : profileTags) {
        Profile profile;
        Kernel::SharedObjectReference reference;
        if (!serialiser.LoadSharedObject(tag, store, profile, reference) && !reference)
            continue;
        SetProfile(space, profile);
        unread[space - 1] = reference;
    }
    int stored = 0;
    if (serialiser.LoadEnumI(intentTag, IntentEnumSerialiser::GetInstance(), stored))
        intent = static_cast<Intent>(stored);
    serialiser.LoadType(compensationTag, blackPointCompensation);
    return true;
}

void ICCManager::ICCProfileSet::AccumulateHash(Kernel::HashAccumulator & accumulator) const {
    for (auto const & profile : profiles)
        accumulator.AddToHash(std::hash<Profile>()(profile));
    for (auto const & reference : unread)
        accumulator.AddToHash(std::hash<Kernel::ItemID>()(reference.GetID()));
    accumulator.AddToHash(intent);
    accumulator.AddToHash(blackPointCompensation);
}

bool ICCManager::ICCProfileSet::CompareMembers(Kernel::Serialisable const & other) const {
    auto const * const set = dynamic_cast<ICCProfileSet const *>(&other);
    return set && profiles == set->profiles && unread == set->unread && intent == set->intent &&
           blackPointCompensation == set->blackPointCompensation;
}
}
