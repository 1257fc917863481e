#pragma once

#include "kernel/Countable.h"

namespace Raster {
/// How a camera file wants to be developed. Who reads such files derives from this; nothing in the library does yet.
class RASTER_API CameraParams : public Kernel::Countable {
public:
    ~CameraParams() override;

protected:
    CameraParams();
};
}
