/// What a user may be told about a channel.
#pragma once

#include "kernel/Export.h"
#include "kernel/LocalisedString.h"
#include "kernel/String.h"
#include "pixel/ChannelTuple.h"

#include <array>
#include <cstdint>
#include <vector>

namespace Raster {
/// One channel of a tuple, or the placeholder that fills a position.
struct ChannelParams {
    Kernel::StringUtf8 name; ///< in the user's language
    bool present = false;    ///< false for a placeholder
    bool isAlpha = false;
    bool isAdditive = false;                   ///< the maximum is light: red, green, blue, intensity, lightness
    bool isSubtractive = false;                ///< an ink: cyan, magenta, yellow, black
    std::uint8_t red = 0, green = 0, blue = 0; ///< the colour in which to display the channel
    float minimum = 0;
    float maximum = 1; ///< nominal: unbounded channels report 1 and may exceed it
    bool operator==(ChannelParams const &) const = default;
};

/// What untyped code needs to know of one position of a tuple.
struct ChannelPosition {
    ChannelRole role;
    float maximum;
};

/// The channels at the positions of a tuple, in their order.
RASTER_API std::vector<ChannelParams> DescribeChannels(std::array<ChannelPosition, 5> const & positions);

/// The name of a channel, with the context that tells translators what it belongs to. A name that is no channel's
/// becomes a string that shows the name itself.
RASTER_API Kernel::LocalisedString LocaliseChannelName(Kernel::StringUtf8 const & name);

/// Five entries for any tuple, one for each position.
template<class Tuple>
std::vector<ChannelParams> GetChannelInfoOf() {
    auto const describe = [](auto... channel) {
        return DescribeChannels({{{channel.role, channel.isPresent ? channel.maximum : 1.0f}...}});
    };
    return Tuple::Expand(describe);
}
}
