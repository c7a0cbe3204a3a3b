# `cmake --install` puts the library, its header, the front-end headers and a
# copy of the Halide runtime header into a prefix, with a CMake package
# (find_package(flatmorph): targets flatmorph::flatmorph and flatmorph::host)
# and a pkg-config file.
#
# flatmorph.h includes <HalideRuntime.h>. The package ships the copy of that
# header the library was built with, beside flatmorph.h, rather than asking
# consumers for Halide: the buffer and metadata structs must match the runtime
# compiled into libflatmorph.so, and Debian's Halide package config pulls in
# LLVM's development files. The copy goes into include/flatmorph/, the
# package's own include folder, so it cannot shadow another Halide install.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(FLATMORPH_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/flatmorph)
set(FLATMORPH_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/flatmorph)

get_target_property(_flatmorph_halide_include Halide::Runtime INTERFACE_INCLUDE_DIRECTORIES)
find_file(FLATMORPH_HALIDE_RUNTIME_HEADER HalideRuntime.h PATHS ${_flatmorph_halide_include}
          NO_DEFAULT_PATH REQUIRED)

install(TARGETS flatmorph LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES
          ${FLATMORPH_INCLUDE_DIR}/flatmorph.h
          ${FLATMORPH_HALIDE_RUNTIME_HEADER}
          ${CMAKE_SOURCE_DIR}/host/flatmorph_cpu.h
          ${CMAKE_SOURCE_DIR}/host/flatmorph_host.h
        DESTINATION ${FLATMORPH_INSTALL_INCLUDEDIR})
install(FILES ${CMAKE_SOURCE_DIR}/cmake/HalideRuntime-LICENSE.txt DESTINATION ${CMAKE_INSTALL_DOCDIR})

configure_package_config_file(cmake/flatmorphConfig.cmake.in
  ${CMAKE_BINARY_DIR}/package/flatmorphConfig.cmake
  INSTALL_DESTINATION ${FLATMORPH_INSTALL_CMAKEDIR}
  PATH_VARS CMAKE_INSTALL_LIBDIR FLATMORPH_INSTALL_INCLUDEDIR)
# Before 1.0 a minor version may change the exported surface.
write_basic_package_version_file(${CMAKE_BINARY_DIR}/package/flatmorphConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES
          ${CMAKE_BINARY_DIR}/package/flatmorphConfig.cmake
          ${CMAKE_BINARY_DIR}/package/flatmorphConfigVersion.cmake
        DESTINATION ${FLATMORPH_INSTALL_CMAKEDIR})

# The .pc file finds the prefix from its own place, so the installed tree can
# be moved or installed with --prefix at install time.
file(RELATIVE_PATH FLATMORPH_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" FLATMORPH_PC_TO_PREFIX "${FLATMORPH_PC_TO_PREFIX}")
configure_file(cmake/flatmorph.pc.in ${CMAKE_BINARY_DIR}/package/flatmorph.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/package/flatmorph.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
