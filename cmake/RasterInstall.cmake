# What `cmake --install` lays down: both libraries, the public headers, a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS Raster EXPORT RasterTargets)
install(TARGETS RasterStatic RasterDependencies EXPORT RasterStaticTargets)

# Public is every header but vector code, which stands in a kernels/ folder or is named *-inl.h, and those that only our
# own sources include.
set(privateHeaders
    colour/ColourEngine.h
    colour/ProfileBytes.h
    files/FileFormat.h
    files/SupportedFormats.h
    files/jpeg/JPEGMetadata.h
    files/jpeg/JPEGReader.h
    files/jpeg/JPEGSession.h
    files/jpeg/JPEGWriter.h
    files/png/PNGHeader.h
    files/png/PNGProfileName.h
    files/png/PNGReader.h
    files/png/PNGSession.h
    files/png/PNGWriter.h
    geometry/SimplifyPoints.h
    kernel/ArchiveItemSource.h
    kernel/DispatchArena.h
    kernel/ItemCodec.h
    kernel/MoveToFreeName.h
    kernel/PredictedInStream.h
    kernel/PropertyStream.h
    kernel/TagRegistry.h
    pixel/transfer/BlendRules.h
    pixel/transfer/Coverage.h
    pixel/transfer/SampleRules.h
    pixel/transfer/Sampler.h
    pixel/transfer/TileTransfer.h
    pixel/transfer/UprightSampler.h
    storage/BackstoreFile.h
    storage/BitmapAccessorInstances.h
    storage/PrivateFile.h
    storage/PushedStrategy.h
    storage/ReduceLevel.h
    storage/ReductionRules.h
    storage/SlabMemory.h
    storage/StaticTiles.h
    storage/TileLocks.h)
set(exclusions "")
foreach(header IN LISTS privateHeaders)
    list(APPEND exclusions PATTERN "source/${header}" EXCLUDE)
endforeach()
install(DIRECTORY "${PROJECT_SOURCE_DIR}/source/" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/raster"
    FILES_MATCHING PATTERN "*.h"
    PATTERN "*-inl.h" EXCLUDE
    PATTERN "kernels" EXCLUDE
    ${exclusions})

set(packageFolder "${CMAKE_INSTALL_LIBDIR}/cmake/Raster")
install(EXPORT RasterTargets NAMESPACE Raster:: DESTINATION "${packageFolder}")
install(EXPORT RasterStaticTargets NAMESPACE Raster:: DESTINATION "${packageFolder}")
configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/RasterConfig.cmake.in"
    "${PROJECT_BINARY_DIR}/RasterConfig.cmake" INSTALL_DESTINATION "${packageFolder}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/RasterConfigVersion.cmake"
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES
    "${PROJECT_BINARY_DIR}/RasterConfig.cmake"
    "${PROJECT_BINARY_DIR}/RasterConfigVersion.cmake"
    "${PROJECT_SOURCE_DIR}/cmake/RasterFindDependencies.cmake"
    DESTINATION "${packageFolder}")

# Paths relative to the file itself, so that the tree may be installed with another --prefix and moved.
set(pkgconfigFolder "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}/${pkgconfigFolder}"
    OUTPUT_VARIABLE prefixFromPkgconfigFolder)
if(RASTER_CHECK_LOCK_ORDER)
    set(lockOrderFlag " -DRASTER_CHECK_LOCK_ORDER") # headers take locks too
endif()
configure_file("${PROJECT_SOURCE_DIR}/cmake/raster.pc.in" "${PROJECT_BINARY_DIR}/raster.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/raster.pc" DESTINATION "${pkgconfigFolder}")
