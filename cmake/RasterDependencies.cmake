# What the library links, private to it: no public header includes one of these.

set(raster_find REQUIRED)
include(RasterFindDependencies)

add_library(RasterDependencies INTERFACE)
target_link_libraries(RasterDependencies INTERFACE ${RASTER_DEPENDENCIES})
