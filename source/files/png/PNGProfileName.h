#pragma once

#include <string>
#include <string_view>

namespace Raster {
/// What a profile may be called in a PNG: 1 to 79 printable Latin-1 bytes, without spaces at the ends or next to each
/// other. Other characters become question marks; "ICC Profile" if nothing is left.
/// @param name  UTF-8; broken sequences are other characters.
std::string MakePNGProfileName(std::string_view name);
}
