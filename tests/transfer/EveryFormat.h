/// Typed tests over the ten formats.
#pragma once

#include "pixel/ChannelTuple.h"

#include <gtest/gtest.h>

namespace Raster {
#define RASTER_TUPLE(format, ...) , ChannelTuple<__VA_ARGS__>
template<class None, class... Tuples>
using TypesAfterFirst = ::testing::Types<Tuples...>;
using EveryTuple = TypesAfterFirst<void RASTER_FOR_EACH_FORMAT(RASTER_TUPLE)>;
#undef RASTER_TUPLE

/// Tests are named after the format rather than by a number.
struct FormatNames {
    template<class Tuple>
    static std::string GetName(int) {
#define RASTER_NAME(format, ...)                                                                                       \
    if (formatOf<Tuple> == format)                                                                                     \
        return #format;
        RASTER_FOR_EACH_FORMAT(RASTER_NAME)
#undef RASTER_NAME
        return {};
    }
};
}
