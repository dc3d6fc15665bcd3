# What `cmake --install` puts under the prefix, by component:
#
#   library  include/plc_driver*.h (plc_driver_version.h among them)
#            lib/libplc_driver.so.1.0.0, libplc_driver.so.1, libplc_driver.so
#            lib/pkgconfig/plc_driver.pc
#            lib/cmake/plc_driver/   find_package(plc_driver) -> plc_driver::plc_driver
#            share/doc/plc_driver/   README.md, CHANGELOG.md, LICENSE, the C example host
#            share/man/man3/plc_driver.3 (man/CMakeLists.txt)
#   tools    bin/plc-host, bin/plc-sim (when built), share/man/man1/ (man/CMakeLists.txt)
#   debug    lib/debug/.build-id/xx/yyyy.debug for each binary, written only by a
#            stripped install (`cmake --install --strip`, the tarballs), so that
#            the debug information is kept apart from the binaries.
#
# Every path is relative to the prefix, so the installed tree and the tarball
# can live anywhere.
include(CMakePackageConfigHelpers)

set(PLC_CMAKE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/plc_driver)

install(TARGETS plc_driver EXPORT plc_driverTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT library)

file(GLOB PLC_PUBLIC_HEADERS CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/include/plc_driver*.h)
install(FILES ${PLC_PUBLIC_HEADERS} ${PLC_GENERATED_INCLUDE_DIR}/plc_driver_version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT library)

# pkg-config: the prefix is found from the .pc file's own place.
file(RELATIVE_PATH PLC_PC_PREFIX_FROM_PCFILEDIR
     /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${CMAKE_SOURCE_DIR}/cmake/plc_driver.pc.in
               ${CMAKE_BINARY_DIR}/generated/plc_driver.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/generated/plc_driver.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT library)

# CMake package.
install(EXPORT plc_driverTargets NAMESPACE plc_driver::
  DESTINATION ${PLC_CMAKE_PACKAGE_DIR} COMPONENT library)
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/plc_driverConfig.cmake.in
  ${CMAKE_BINARY_DIR}/generated/plc_driverConfig.cmake
  INSTALL_DESTINATION ${PLC_CMAKE_PACKAGE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/generated/plc_driverConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/generated/plc_driverConfig.cmake
              ${CMAKE_BINARY_DIR}/generated/plc_driverConfigVersion.cmake
  DESTINATION ${PLC_CMAKE_PACKAGE_DIR} COMPONENT library)

install(FILES README.md CHANGELOG.md LICENSE
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT library)
install(FILES examples/c-host/c_host.c examples/c-host/PLC7F000001_1.csv
  DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples/c-host COMPONENT library)

set(PLC_INSTALLED_BINARIES $<TARGET_FILE:plc_driver>)
if(TARGET plc-host)
  install(TARGETS plc-host RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  # plc-host opens libplc_driver.so with dlopen: from the build tree while it
  # is there, and next to itself once installed (tarball or any prefix).
  set_target_properties(plc-host PROPERTIES
    BUILD_RPATH $<TARGET_FILE_DIR:plc_driver>
    INSTALL_RPATH $ORIGIN/../${CMAKE_INSTALL_LIBDIR})
  list(APPEND PLC_INSTALLED_BINARIES $<TARGET_FILE:plc-host>)
endif()
if(TARGET plc-sim)
  install(TARGETS plc-sim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  list(APPEND PLC_INSTALLED_BINARIES $<TARGET_FILE:plc-sim>)
endif()

# The debug information of a stripped install, taken from the unstripped
# binaries of the build tree and named by build id, where gdb looks for it
# (`set debug-file-directory PREFIX/lib/debug`).
install(CODE "
  if(CMAKE_INSTALL_DO_STRIP)
    include(\"${CMAKE_SOURCE_DIR}/cmake/PlcSplitDebug.cmake\")
    plc_split_debug(\"${CMAKE_READELF}\" \"${CMAKE_OBJCOPY}\"
                    \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/debug\"
                    \"${PLC_INSTALLED_BINARIES}\")
  endif()" COMPONENT debug)
