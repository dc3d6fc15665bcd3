# GoogleTest for the tests: the installed package on a native build, its
# sources otherwise (a cross build, PLC_GTEST_FROM_SOURCE, or no package). When
# neither is there the tests are left out with a message, so that a build of
# the library alone never needs GoogleTest.
set(PLC_GTEST_SOURCE_DIR /usr/src/googletest CACHE PATH
    "GoogleTest sources, built when the package cannot be used (package googletest)")

if(NOT PLC_GTEST_FROM_SOURCE)
  find_package(GTest QUIET)
endif()

if(NOT TARGET GTest::gtest_main AND EXISTS ${PLC_GTEST_SOURCE_DIR}/CMakeLists.txt)
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
  add_subdirectory(${PLC_GTEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
  # GoogleTest 1.11 and later define the namespaced names themselves.
  if(NOT TARGET GTest::gtest_main)
    add_library(GTest::gtest ALIAS gtest)
    add_library(GTest::gtest_main ALIAS gtest_main)
  endif()
endif()

if(TARGET GTest::gtest_main)
  include(GoogleTest)
else()
  message(STATUS "GoogleTest not found (neither the package nor sources in "
                 "${PLC_GTEST_SOURCE_DIR}): the tests are not built")
  set(PLC_BUILD_TESTS OFF)
endif()
