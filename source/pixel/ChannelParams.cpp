#include "pixel/ChannelParams.h"

#include <string_view>

namespace Raster {
namespace {
// What a role adds to light: nothing in particular, light, ink; or that it is coverage; or that nothing is there.
enum class Nature : std::uint8_t { Neutral, Light, Ink, Coverage, Absent };

struct RoleFacts {
    ChannelRole role; // the row's own number, so that a row out of place doesn't compile
    char const * name;
    Nature nature;
    std::uint8_t red, green, blue;
};

constexpr RoleFacts roleTable[] = {
    {ChannelRole::Red, "Red", Nature::Light, 255, 0, 0},
    {ChannelRole::Green, "Green", Nature::Light, 0, 255, 0},
    {ChannelRole::Blue, "Blue", Nature::Light, 0, 0, 255},
    {ChannelRole::Cyan, "Cyan", Nature::Ink, 0, 255, 255},
    {ChannelRole::Magenta, "Magenta", Nature::Ink, 255, 0, 255},
    {ChannelRole::Yellow, "Yellow", Nature::Ink, 255, 255, 0},
    {ChannelRole::Black, "Black", Nature::Ink, 64, 64, 64},
    {ChannelRole::Hue, "Hue", Nature::Neutral, 128, 128, 128},
    {ChannelRole::Saturation, "Saturation", Nature::Neutral, 128, 128, 128},
    {ChannelRole::Luminosity, "Luminosity", Nature::Neutral, 128, 128, 128},
    {ChannelRole::Value, "Value", Nature::Neutral, 128, 128, 128},
    {ChannelRole::Chroma, "Chroma", Nature::Neutral, 128, 128, 128},
    {ChannelRole::Intensity, "Intensity", Nature::Light, 128, 128, 128},
    {ChannelRole::Alpha, "Alpha", Nature::Coverage, 128, 128, 128},
    {ChannelRole::Lightness, "Lightness", Nature::Light, 128, 128, 128},
    {ChannelRole::AOpponent, "AOpponent", Nature::Neutral, 128, 128, 128},
    {ChannelRole::BOpponent, "BOpponent", Nature::Neutral, 128, 128, 128},
    {ChannelRole::Index, "Index", Nature::Neutral, 128, 128, 128},
    {ChannelRole::IndexX, "IndexX", Nature::Neutral, 128, 128, 128},
    {ChannelRole::IndexY, "IndexY", Nature::Neutral, 128, 128, 128},
    {ChannelRole::ChannelOne, "ChannelOne", Nature::Neutral, 128, 128, 128},
    {ChannelRole::ChannelTwo, "ChannelTwo", Nature::Neutral, 128, 128, 128},
    {ChannelRole::ChannelThree, "ChannelThree", Nature::Neutral, 128, 128, 128},
    {ChannelRole::ChannelFour, "ChannelFour", Nature::Neutral, 128, 128, 128},
    {ChannelRole::ChannelFive, "ChannelFive", Nature::Neutral, 128, 128, 128},
    {ChannelRole::Empty, "Empty", Nature::Absent, 0, 0, 0},
};

constexpr bool RowsStandInPlace() {
    std::size_t row = 0;
    for (auto const & facts : roleTable)
        if (static_cast<std::size_t>(facts.role) != row++)
            return false;
    return row == static_cast<std::size_t>(ChannelRole::Empty) + 1;
}
static_assert(RowsStandInPlace(), "a role was added or moved, and the table wasn't");

struct NameContext {
    std::string_view name;
    char const * context;
};
// Names that translators know. The others are shown as they are.
constexpr NameContext contextTable[] = {
    {"Red", "RGB Channel name"},        {"Green", "RGB Channel name"},     {"Blue", "RGB Channel name"},
    {"Cyan", "CMYK Channel name"},      {"Magenta", "CMYK Channel name"},  {"Yellow", "CMYK Channel name"},
    {"Black", "CMYK Channel name"},     {"Hue", "HSL Channel name"},       {"Saturation", "HSL Channel name"},
    {"Luminosity", "HSL Channel name"}, {"Value", "HSV Channel name"},     {"Intensity", "Greyscale Channel name"},
    {"Alpha", "Channel name"},          {"Lightness", "LAB Channel name"}, {"AOpponent", "LAB Channel name"},
    {"BOpponent", "LAB Channel name"},
};

ChannelParams Describe(ChannelPosition const & position) {
    auto const & facts = roleTable[static_cast<std::size_t>(position.role)];
    ChannelParams params;
    params.name = LocaliseChannelName(facts.name);
    params.present = facts.nature != Nature::Absent;
    params.isAlpha = facts.nature == Nature::Coverage;
    params.isAdditive = facts.nature == Nature::Light;
    params.isSubtractive = facts.nature == Nature::Ink;
    params.red = facts.red;
    params.green = facts.green;
    params.blue = facts.blue;
    params.maximum = position.maximum;
    return params;
}
}

std::vector<ChannelParams> DescribeChannels(std::array<ChannelPosition, 5> const & positions) {
    std::vector<ChannelParams> result;
    result.reserve(positions.size());
    for (auto const & position : positions)
        result.push_back(Describe(position));
    return result;
}

Kernel::LocalisedString LocaliseChannelName(Kernel::StringUtf8 const & name) {
    for (auto const & row : contextTable)
        if (name.GetView() == row.name)
            return Kernel::LocalisedString(name, row.context);
    return Kernel::LocalisedString::CreateFakeFromString(name);
}
}
