# Installation for other projects: the shared library with its soname, the public header, the
# zoqrv tool, a CMake package (zo_qrv64::zo_qrv64) and a pkg-config file; CPack makes a .deb.
# The internal static library, the tests and the benchmarks stay in the build tree.
# Debian's loader searches lib/<multiarch> under /usr and /usr/local alike, so one library folder
# serves both the install and the package (GNUInstallDirs picks it only for a /usr prefix).
if(CMAKE_LIBRARY_ARCHITECTURE AND EXISTS /etc/debian_version AND NOT DEFINED CMAKE_INSTALL_LIBDIR)
  set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "Object code libraries")
endif()
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set_target_properties(zo_qrv64 PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
target_include_directories(zo_qrv64 INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

install(TARGETS zo_qrv64 EXPORT zo_qrv64Targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_COMPONENT Development)
install(FILES ${CMAKE_SOURCE_DIR}/include/zo_qrv64.h ${CMAKE_SOURCE_DIR}/include/zoqrv.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS zoqrv RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

set(ZOQRV_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zo_qrv64)
install(EXPORT zo_qrv64Targets NAMESPACE zo_qrv64:: DESTINATION ${ZOQRV_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/zo_qrv64Config.cmake.in
                              ${CMAKE_BINARY_DIR}/zo_qrv64Config.cmake INSTALL_DESTINATION ${ZOQRV_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/zo_qrv64ConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/zo_qrv64Config.cmake ${CMAKE_BINARY_DIR}/zo_qrv64ConfigVersion.cmake
        DESTINATION ${ZOQRV_CMAKE_DIR})

# The .pc file finds its prefix from its own place, so an install with --prefix stays right.
file(RELATIVE_PATH ZOQRV_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" ZOQRV_PC_TO_PREFIX ${ZOQRV_PC_TO_PREFIX})
configure_file(${CMAKE_CURRENT_LIST_DIR}/zo_qrv64.pc.in ${CMAKE_BINARY_DIR}/zo_qrv64.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/zo_qrv64.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The package's dependencies come from the installed binaries (dpkg-shlibdeps): libde265 and
# the C/C++ runtimes. The CUDA runtime is linked in; the driver, libx265, libx264 and libavcodec
# (software H.264 decoding) are loaded when present, so none is a dependency.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zo-qrv64)
set(CPACK_PACKAGE_VENDOR zo_qrv64)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Records image streams through NVIDIA's video engines into QRV files and plays them back")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/package)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "zo_qrv64 developers")
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "libx265-199, libx264-164, libavcodec59")
set(CPACK_RESOURCE_FILE_LICENSE ${CMAKE_SOURCE_DIR}/LICENSE)
# One package per group: the library's (zo-qrv64) and, where the module is built for Debian's own
# interpreter, python3-zoqrv for it, in /usr/lib/python3/dist-packages. The module's runtime needs
# are the library package's, so its dependencies are named rather than computed.
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL Unspecified Development)
set(CPACK_COMPONENT_UNSPECIFIED_GROUP library)
set(CPACK_COMPONENT_DEVELOPMENT_GROUP library)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME zo-qrv64)
if(TARGET zoqrv_python AND ZOQRV_PYTHON_IS_DEBIANS)
  list(APPEND CPACK_COMPONENTS_ALL python)
  set(CPACK_COMPONENT_PYTHON_GROUP python)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-zoqrv)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS OFF)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
      "zo-qrv64 (= ${PROJECT_VERSION}), ${ZOQRV_PYTHON_DEPENDS}, python3-numpy")
  set(CPACK_COMPONENT_PYTHON_DESCRIPTION "QRV recordings as numpy arrays: the zoqrv module")
endif()
include(CPack)
