#include "files/png/PNGProfileName.h"

#include <cstddef>
#include <cstdint>

namespace Raster {
namespace {
constexpr std::size_t longest = 79;

bool IsPrintable(unsigned character) {
    return (character >= 0x20 && character <= 0x7E) || (character >= 0xA1 && character <= 0xFF);
}

unsigned CountBytes(unsigned char lead) { return lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4; }

// The character at the start of `text`, which is cut by it; 0 for what Latin-1 lacks.
unsigned TakeLatin1(std::string_view & text) {
    auto const lead = static_cast<unsigned char>(text[0]);
    std::size_t count = 1;
    while (count < CountBytes(lead) && count < text.size() && (static_cast<unsigned char>(text[count]) & 0xC0) == 0x80)
        ++count;
    unsigned character = lead < 0x80 ? lead : 0;
    if ((lead == 0xC2 || lead == 0xC3) && count == 2)
        character = (lead & 3u) << 6 | (static_cast<unsigned char>(text[1]) & 0x3Fu);
    text.remove_prefix(count);
    return character;
}
}

std::string MakePNGProfileName(std::string_view name) {
    std::string result;
    while (!name.empty() && result.size() < longest) {
        unsigned const character = TakeLatin1(name);
        bool const isSpace = character == ' ' || character == '\t' || character == '\n' || character == 0xA0;
        if (!isSpace)
            result += static_cast<char>(IsPrintable(character) ? character : '?');
        else if (!result.empty() && result.back() != ' ')
            result += ' ';
    }
    if (!result.empty() && result.back() == ' ')
        result.pop_back();
    return result.empty() ? "ICC Profile" : result;
}
}
