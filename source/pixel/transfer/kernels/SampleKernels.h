/// Vector forms of the sampler's pieces, equal to the plain ones bit for bit. The arguments are those of Sampler.h.
#pragma once

#include <cstddef>

namespace Raster {
struct SampleWindow;

void PremultiplyRow8(float * const * groups, void const * const * source, int colours, std::size_t count);
void PremultiplyRow16(float * const * groups, void const * const * source, int colours, std::size_t count);
void PremultiplyRowFloat(float * const * groups, void const * const * source, int colours, std::size_t count);

void SampleRow8(void * const * dest, SampleWindow const & window, float const * u, float const * v, int colours,
                std::size_t count);
void SampleRow16(void * const * dest, SampleWindow const & window, float const * u, float const * v, int colours,
                 std::size_t count);
void SampleRowFloat(void * const * dest, SampleWindow const & window, float const * u, float const * v, int colours,
                    std::size_t count);
}
