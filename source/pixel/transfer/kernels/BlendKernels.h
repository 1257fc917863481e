/// Vector forms of blending, equal to the plain ones bit for bit. The arguments are those of `BlendRows`.
#pragma once

#include <cstddef>

namespace Raster {
void BlendRows8(void * const * dest, void const * const * source, int colours, std::size_t count, float opacity);
void BlendRows16(void * const * dest, void const * const * source, int colours, std::size_t count, float opacity);
void BlendRowsFloat(void * const * dest, void const * const * source, int colours, std::size_t count, float opacity);
}
