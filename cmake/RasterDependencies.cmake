# Every package that the library links, found once.

find_package(Threads REQUIRED)
find_package(TBB REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(HWY REQUIRED IMPORTED_TARGET libhwy)
find_package(Imath REQUIRED)
pkg_check_modules(DEFLATE REQUIRED IMPORTED_TARGET libdeflate)
pkg_check_modules(XXHASH REQUIRED IMPORTED_TARGET libxxhash)
find_package(OpenSSL REQUIRED COMPONENTS Crypto)

# Private to the library: no public header includes one of these.
add_library(RasterDependencies INTERFACE)
target_link_libraries(RasterDependencies INTERFACE
    TBB::tbb PkgConfig::HWY Imath::Imath PkgConfig::DEFLATE PkgConfig::XXHASH OpenSSL::Crypto Threads::Threads)
