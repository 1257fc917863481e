# Finds every package that the library links. The build includes this with `raster_find` set to REQUIRED; an installed
# tree includes it with QUIET, for those who link statically.

find_package(Threads ${raster_find})
find_package(TBB ${raster_find})
find_package(Imath ${raster_find})
find_package(OpenSSL ${raster_find} COMPONENTS Crypto)
find_package(PkgConfig ${raster_find})
if(PkgConfig_FOUND)
    pkg_check_modules(RASTER_DEFLATE ${raster_find} IMPORTED_TARGET libdeflate)
    pkg_check_modules(RASTER_HWY ${raster_find} IMPORTED_TARGET libhwy)
    pkg_check_modules(RASTER_XXHASH ${raster_find} IMPORTED_TARGET libxxhash)
endif()
