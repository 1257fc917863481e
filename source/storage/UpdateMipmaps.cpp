#include "storage/BitmapCore.h"

namespace Raster {
// Nothing filters levels yet: they stay invalid, so that nobody is given one, and keep record of what they miss.
void BitmapCore::UpdateMipmaps(int, bool *) const {}
}
