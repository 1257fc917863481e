# Finds every package that the library links, and lists them. The build includes this with `raster_find` set to
# REQUIRED; an installed tree includes it with QUIET, for those who link statically.

find_package(Threads ${raster_find})
find_package(TBB ${raster_find})
find_package(OpenSSL ${raster_find} COMPONENTS Crypto)
find_package(PkgConfig ${raster_find})
if(PkgConfig_FOUND)
    pkg_check_modules(RASTER_DEFLATE ${raster_find} IMPORTED_TARGET libdeflate)
    pkg_check_modules(RASTER_HWY ${raster_find} IMPORTED_TARGET libhwy)
    pkg_check_modules(RASTER_IMATH ${raster_find} IMPORTED_TARGET Imath) # its CMake package names files that it lacks
    pkg_check_modules(RASTER_JPEG ${raster_find} IMPORTED_TARGET libjpeg)
    pkg_check_modules(RASTER_LCMS ${raster_find} IMPORTED_TARGET lcms2)
    pkg_check_modules(RASTER_PNG ${raster_find} IMPORTED_TARGET libpng)
    pkg_check_modules(RASTER_XXHASH ${raster_find} IMPORTED_TARGET libxxhash)
    pkg_check_modules(RASTER_ZLIB ${raster_find} IMPORTED_TARGET zlib)
endif()

set(RASTER_DEPENDENCIES
    OpenSSL::Crypto
    PkgConfig::RASTER_DEFLATE
    PkgConfig::RASTER_HWY
    PkgConfig::RASTER_IMATH
    PkgConfig::RASTER_JPEG
    PkgConfig::RASTER_LCMS
    PkgConfig::RASTER_PNG
    PkgConfig::RASTER_XXHASH
    PkgConfig::RASTER_ZLIB
    TBB::tbb
    Threads::Threads)
# The same for pkg-config, as plain flags: a list of required .pc files would ask those who link the shared library for
# development packages that they don't need.
set(RASTER_DEPENDENCIES_AS_FLAGS "-lcrypto -ldeflate -lhwy -lImath -ljpeg -llcms2 -lpng -lxxhash -lz -ltbb -pthread")
