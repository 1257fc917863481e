/// How documents hold the enumerations of this library: one serialiser each, made on first use. The tables are part of
/// the file format: their order and sizes stay, and growth adds a table.
#pragma once

#include "kernel/EnumSerialiser.h"
#include "pixel/Format.h"
#include "pixel/Vocabulary.h"

namespace Raster {
#define RASTER_DECLARE_ENUM_SERIALISER(Enum)                                                                           \
    class RASTER_API Enum##EnumSerialiser : public Kernel::EnumSerialiser {                                            \
    public:                                                                                                            \
        Enum##EnumSerialiser(Enum##EnumSerialiser const &) = default;                                                  \
        Enum##EnumSerialiser(Enum##EnumSerialiser &&) noexcept = default;                                              \
        Enum##EnumSerialiser & operator=(Enum##EnumSerialiser const &) = default;                                      \
        Enum##EnumSerialiser & operator=(Enum##EnumSerialiser &&) noexcept = default;                                  \
        static Enum##EnumSerialiser const & GetInstance();                                                             \
                                                                                                                       \
    protected:                                                                                                         \
        Enum##EnumSerialiser();                                                                                        \
    };

RASTER_DECLARE_ENUM_SERIALISER(Format)
RASTER_DECLARE_ENUM_SERIALISER(ColourSpace)
RASTER_DECLARE_ENUM_SERIALISER(MipmapMode)
RASTER_DECLARE_ENUM_SERIALISER(ExtendType)
RASTER_DECLARE_ENUM_SERIALISER(ResamplerType)
/// `FileTypeHEIF` is not stored.
RASTER_DECLARE_ENUM_SERIALISER(FileType)
RASTER_DECLARE_ENUM_SERIALISER(Intent)
RASTER_DECLARE_ENUM_SERIALISER(SubMode)
RASTER_DECLARE_ENUM_SERIALISER(BitStreamFormat)
/// Grew three times: documents may hold indices into any of four tables.
RASTER_DECLARE_ENUM_SERIALISER(BlendModeType)
#undef RASTER_DECLARE_ENUM_SERIALISER
}
