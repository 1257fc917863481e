#include "storage/StoredClasses.h"

#include "colour/ICCProfile.h"
#include "colour/ICCProfileSet.h"
#include "geometry/Spline.h"
#include "storage/Block.h"
#include "storage/CompressedRasterData.h"
#include "storage/Data.h"
#include "storage/DynamicBitmap.h"

namespace Raster {
void RegisterStoredClasses() {
    Geometry::Spline::GetClassProperties().Init();
    Block::GetClassProperties().Init();
    DynamicBitmap::GetClassProperties().Init();
    ICCProfile::GetClassProperties().Init();
    ICCManager::ICCProfileSet::GetClassProperties().Init();
    Data::GetItemType().Init();
    CompressedRasterData::GetTypeFileStoreItemType().Init();
}
}
