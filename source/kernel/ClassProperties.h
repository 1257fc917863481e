#pragma once

#include "kernel/Counted.h"
#include "kernel/Export.h"
#include "kernel/IDTag.h"

namespace Kernel {
class Serialisable;

/// What a file needs to know of a class: its name there, its schema version and how to make an empty object of it.
/// One static record per class, which lives as long as the process.
class RASTER_API ClassPropertiesBase {
public:
    using CreateFunction = Counted<Serialisable> (*)();

    ClassPropertiesBase(ClassPropertiesBase const &) = delete;
    ClassPropertiesBase & operator=(ClassPropertiesBase const &) = delete;

    ClassUID GetClassUID() const noexcept { return classUID; }
    /// The version that objects are written with.
    unsigned short GetSchemaVersion() const noexcept { return schemaVersion; }
    /// Makes objects of the class known to whoever reads files. May be called again.
    void Init() const;
    /// An object for the serialiser to fill. Null for a class that is only stored inside others.
    Counted<Serialisable> CreateObject() const;

protected:
    ClassPropertiesBase(ClassUID uid, unsigned short version, CreateFunction createFunction) noexcept;
    ~ClassPropertiesBase() = default;

private:
    ClassUID classUID;
    unsigned short schemaVersion;
    CreateFunction create; // may be null
};

/// The record of a class whose objects are stored where they are used.
class RASTER_API ClassProperties : public ClassPropertiesBase {
public:
    ClassProperties(ClassUID uid, unsigned short version, CreateFunction createFunction = nullptr) noexcept
        : ClassPropertiesBase(uid, version, createFunction) {}
};

/// The record of a class whose objects a file stores once, however many others refer to them.
class RASTER_API SharedClassProperties : public ClassPropertiesBase {
public:
    SharedClassProperties(ClassUID uid, unsigned short version, CreateFunction createFunction) noexcept
        : ClassPropertiesBase(uid, version, createFunction) {}
};
}
