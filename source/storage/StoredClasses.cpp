#include "storage/StoredClasses.h"

#include "colour/ICCProfile.h"
#include "colour/ICCProfileSet.h"
#include "storage/Block.h"
#include "storage/DynamicBitmap.h"

namespace Raster {
void RegisterStoredClasses() {
    Block::GetClassProperties().Init();
    DynamicBitmap::GetClassProperties().Init();
    ICCProfile::GetClassProperties().Init();
    ICCManager::ICCProfileSet::GetClassProperties().Init();
}
}
