# What the library links, in one place. Private to it: no public header includes one of these.

set(raster_find REQUIRED)
include(RasterFindDependencies)

add_library(RasterDependencies INTERFACE)
target_link_libraries(RasterDependencies INTERFACE
    Imath::Imath
    OpenSSL::Crypto
    PkgConfig::RASTER_DEFLATE
    PkgConfig::RASTER_HWY
    PkgConfig::RASTER_XXHASH
    TBB::tbb
    Threads::Threads)

# The same for pkg-config, as plain flags: a list of required .pc files would ask those who link the shared library for
# development packages that they don't need.
set(RASTER_PKGCONFIG_PRIVATE_LIBS "-lImath -lcrypto -ldeflate -lhwy -ltbb -lxxhash -pthread")
