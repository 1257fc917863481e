#pragma once

#include "colour/ICCManager.h"
#include "kernel/Serialisable.h"
#include "kernel/SharedObjectReference.h"

#include <array>

namespace Raster {
/// The profiles that a document works in, one for each colour space, and how it converts between them. Copies are
/// independent. One that could not be read from a document is null, and stays in the document when the set is saved,
/// until `SetProfile` for its space. Threads: as a plain value.
class RASTER_API ICCManager::ICCProfileSet : public Kernel::Serialisable {
public:
    ICCProfileSet() noexcept = default; ///< No profiles, perceptual, no black point compensation.

    /// A space or a format without colour: nothing, and null. Whether the profile fits isn't asked.
    void SetProfile(ColourSpace space, Profile const & profile);
    void SetProfileForFormat(Format format, Profile const & profile);
    Profile GetProfileFor(ColourSpace space) const;
    Profile GetProfileForFormat(Format format) const;

    Intent GetIntent() const noexcept { return intent; }
    void SetIntent(Intent newIntent) noexcept { intent = newIntent; }
    bool GetBlackPointCompensation() const noexcept { return blackPointCompensation; }
    void SetBlackPointCompensation(bool isOn) noexcept { blackPointCompensation = isOn; }

    static Kernel::ClassProperties const & GetClassProperties();
    Kernel::ClassPropertiesBase const & GetObjectClassProperties() const override;
    void Save(Kernel::OutSerialiser & serialiser) const override;
    bool Load(Kernel::InSerialiser const & serialiser, Kernel::FileStore & store, unsigned short version) override;
    void AccumulateHash(Kernel::HashAccumulator & accumulator) const override;
    bool CompareMembers(Kernel::Serialisable const & other) const override;

private:
    // By colour space, without ColourSpaceNone.
    std::array<Profile, ColourSpaceRGBUF> profiles;
    std::array<Kernel::SharedObjectReference, ColourSpaceRGBUF> unread; // those that are null since they can't be read
    Intent intent = Intent::Perceptual;
    bool blackPointCompensation = false;
};
}
