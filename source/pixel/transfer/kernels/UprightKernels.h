/// Vector forms of the upright sampler's pieces, equal to the plain ones bit for bit. The arguments are those of
/// UprightSampler.h.
#pragma once

#include <cstddef>

namespace Raster {
struct UprightColumns;
struct UprightRow;

void PremultiplyPlanes8(float * const * dest, void const * const * source, int colours, std::size_t count);
void PremultiplyPlanes16(float * const * dest, void const * const * source, int colours, std::size_t count);
void PremultiplyPlanesFloat(float * const * dest, void const * const * source, int colours, std::size_t count);

void MixRows8(void * const * dest, UprightRow const & upper, UprightRow const & lower, UprightColumns const & columns,
              float fy, int colours);
void MixRows16(void * const * dest, UprightRow const & upper, UprightRow const & lower, UprightColumns const & columns,
               float fy, int colours);
void MixRowsFloat(void * const * dest, UprightRow const & upper, UprightRow const & lower,
                  UprightColumns const & columns, float fy, int colours);
}
