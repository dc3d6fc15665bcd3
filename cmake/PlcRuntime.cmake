# The oldest C library, and C++ runtime, the library needs on the panel: the
# figures the release states (README, the Debian package dependencies). The
# runtime_versions test holds the built library to them, so that a change
# needing a newer symbol version fails here instead of on a panel.
#
# They are what Debian 12's toolchain (GCC 12, glibc 2.36) gives: GLIBC_2.33
# for fstat, GLIBCXX_3.4.29 (GCC 11) for std::from_chars. With the C++ runtime
# linked in, amd64 also needs GLIBC_2.35 for the unwinder's _dl_find_object;
# ARM unwinds through its own tables. A build against the panel's sysroot
# (PLC_SYSROOT) needs no more than the panel has: state its figures here.
if(PLC_STATIC_RUNTIME)
  set(PLC_MIN_GLIBCXX static)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
    set(PLC_MIN_GLIBC 2.35)
  else()
    set(PLC_MIN_GLIBC 2.33)
  endif()
else()
  set(PLC_MIN_GLIBC 2.33)
  set(PLC_MIN_GLIBCXX 3.4.29)
  # The Debian version of libstdc++6 that provides PLC_MIN_GLIBCXX.
  set(PLC_MIN_LIBSTDCXX_DEB 11)
endif()

# Sanitizer and fuzzing builds link runtimes of their own; their figures
# mean nothing for the panel.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND NOT PLC_SANITIZE AND NOT PLC_BUILD_FUZZ)
  set(objdump ${CMAKE_OBJDUMP})
  if(NOT objdump)
    set(objdump objdump)
  endif()
  add_test(NAME runtime_versions
    COMMAND bash ${CMAKE_SOURCE_DIR}/scripts/check_runtime_versions.sh --objdump ${objdump}
            $<TARGET_FILE:plc_driver> ${PLC_MIN_GLIBC} ${PLC_MIN_GLIBCXX})
  set_tests_properties(runtime_versions PROPERTIES LABELS runtime)
endif()
