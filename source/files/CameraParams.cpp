#include "files/CameraParams.h"

namespace Raster {
CameraParams::CameraParams() = default;
CameraParams::~CameraParams() = default;
}
