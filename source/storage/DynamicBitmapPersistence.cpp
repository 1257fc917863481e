#include "storage/DynamicBitmap.h"

namespace Raster {
// There is no serialiser yet that could pass pixels to a document: nothing is written, and so nothing comes back.
void DynamicBitmap::Save(Kernel::OutSerialiser &) const {}
bool DynamicBitmap::Load(Kernel::InSerialiser const &, Kernel::FileStore &, unsigned short) { return false; }
}
