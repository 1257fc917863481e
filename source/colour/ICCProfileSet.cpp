#include "colour/ICCProfileSet.h"

#include "kernel/HashAccumulator.h"
#include "pixel/FormatFunctions.h"

namespace Raster {
void ICCManager::ICCProfileSet::SetProfile(ColourSpace space, Profile const & profile) {
    if (space != ColourSpaceNone && space <= profiles.size())
        profiles[space - 1] = profile;
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

// There is no serialiser yet that could pass profiles to a document: nothing is written, and so nothing comes back.
void ICCManager::ICCProfileSet::Save(Kernel::OutSerialiser &) const {}
bool ICCManager::ICCProfileSet::Load(Kernel::InSerialiser const &, Kernel::FileStore &, unsigned short) {
    return false;
}

void ICCManager::ICCProfileSet::AccumulateHash(Kernel::HashAccumulator & accumulator) const {
    for (auto const & profile : profiles)
        accumulator.AddToHash(std::hash<Profile>()(profile));
    accumulator.AddToHash(intent);
    accumulator.AddToHash(blackPointCompensation);
}

bool ICCManager::ICCProfileSet::CompareMembers(Kernel::Serialisable const & other) const {
    auto const * const set = dynamic_cast<ICCProfileSet const *>(&other);
    return set && profiles == set->profiles && intent == set->intent &&
           blackPointCompensation == set->blackPointCompensation;
}
}
