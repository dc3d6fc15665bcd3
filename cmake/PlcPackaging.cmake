# Packages, made by `cpack` in a build directory (see README, "Packages"):
#
#   DEB  libplc-driver_<version>_<arch>.deb           the library, headers, pkg-config,
#                                                     CMake package, documentation
#        plc-driver-tools_<version>_<arch>.deb        plc-host and plc-sim
#        <package>-dbgsym_<version>_<arch>.ddeb       their debug information
#   TGZ  plc_driver-<version>-linux-<arch>.tar.gz       library and tools, for panels
#                                                     without a package manager
#        plc_driver-<version>-linux-<arch>-debug.tar.gz the matching .debug files
#
# <arch> is Debian's name for the target: amd64 natively, armel in the panel's
# cross build. Binaries in the packages are stripped; their debug information
# goes to the dbgsym packages and the debug tarball, named by build id.
set(CPACK_PACKAGE_NAME plc_driver)
set(CPACK_PACKAGE_VENDOR "the libplc_driver authors")
set(CPACK_PACKAGE_CONTACT "the libplc_driver authors")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_RESOURCE_FILE_LICENSE ${CMAKE_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_GENERATOR DEB TGZ)

# Debian's architecture name of the target, from the compiler's multiarch triple.
set(plc_triple ${CMAKE_CXX_LIBRARY_ARCHITECTURE})
if(plc_triple MATCHES "^x86_64-")
  set(PLC_PACKAGE_ARCH amd64)
elseif(plc_triple MATCHES "^arm-.*gnueabihf$")
  set(PLC_PACKAGE_ARCH armhf)
elseif(plc_triple MATCHES "^arm-.*gnueabi$")
  set(PLC_PACKAGE_ARCH armel)
elseif(plc_triple MATCHES "^aarch64-")
  set(PLC_PACKAGE_ARCH arm64)
elseif(plc_triple MATCHES "^i[3-6]86-")
  set(PLC_PACKAGE_ARCH i386)
else()
  set(PLC_PACKAGE_ARCH ${CMAKE_SYSTEM_PROCESSOR})
endif()
set(CPACK_PACKAGE_FILE_NAME plc_driver-${PROJECT_VERSION}-linux-${PLC_PACKAGE_ARCH})

set(CPACK_COMPONENTS_ALL library debug)
if(TARGET plc-host OR TARGET plc-sim)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
set(CPACK_COMPONENT_LIBRARY_DISPLAY_NAME "Driver library")
set(CPACK_COMPONENT_TOOLS_DISPLAY_NAME "plc-host and plc-sim")
set(CPACK_COMPONENT_DEBUG_DISPLAY_NAME "Debug information")
set(CPACK_COMPONENT_TOOLS_DEPENDS library)

# ---------------------------------------------------------------- DEB
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${PLC_PACKAGE_ARCH})
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "the libplc_driver authors")
# CPack splits the debug information into -dbgsym packages and strips the rest.
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libplc-driver)
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME plc-driver-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
# The dependencies are the stated minimum runtime (cmake/PlcRuntime.cmake),
# which the runtime_versions test checks, rather than what dpkg-shlibdeps
# reads: it cannot look into a cross build's libraries.
set(plc_runtime_depends "libc6 (>= ${PLC_MIN_GLIBC})")
if(NOT PLC_STATIC_RUNTIME)
  string(APPEND plc_runtime_depends
         ", libstdc++6 (>= ${PLC_MIN_LIBSTDCXX_DEB}), libgcc-s1 (>= 3.0)")
endif()
set(CPACK_DEBIAN_LIBRARY_PACKAGE_DEPENDS "${plc_runtime_depends}")
# The tools come from the same compiler; their threads need glibc 2.34, where
# the thread functions moved into libc.
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libplc-driver (= ${PROJECT_VERSION}), libc6 (>= 2.34)")
if(NOT PLC_STATIC_RUNTIME)
  string(APPEND CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
         ", libstdc++6 (>= ${PLC_MIN_LIBSTDCXX_DEB}), libgcc-s1 (>= 3.0)")
endif()
if(NOT PLC_ATOMIC64_INLINE)
  string(APPEND CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS ", libatomic1")
endif()
# The first line of a description is the package's summary.
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "PLC communication driver for operator-panel hosts
libplc_driver.so is loaded by an operator-panel runtime to read and write \
variables of a controller over EtherNet/IP. This package holds the library, \
its C headers, the pkg-config file and the CMake package.")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "Host tool and controller simulator for libplc_driver
plc-host loads libplc_driver.so as a panel runtime does and reads, writes and \
polls variables from the command line; plc-sim simulates a controller.")
# The cross build's binaries are handled with the cross binutils.
set(CPACK_OBJCOPY_EXECUTABLE ${CMAKE_OBJCOPY})
set(CPACK_READELF_EXECUTABLE ${CMAKE_READELF})

# ---------------------------------------------------------------- TGZ
set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
set(CPACK_COMPONENT_LIBRARY_GROUP panel)
set(CPACK_COMPONENT_TOOLS_GROUP panel)
set(CPACK_COMPONENT_DEBUG_GROUP debug)
set(CPACK_ARCHIVE_PANEL_FILE_NAME ${CPACK_PACKAGE_FILE_NAME})
set(CPACK_ARCHIVE_DEBUG_FILE_NAME ${CPACK_PACKAGE_FILE_NAME}-debug)

# What differs between the generators is decided when cpack runs.
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_SOURCE_DIR}/cmake/PlcCPackGenerator.cmake)

include(CPack)
