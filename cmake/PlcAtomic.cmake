# plc_atomic: links libatomic where 64-bit atomics are library calls instead of
# instructions (32-bit ARM: __atomic_fetch_add_8 and friends), and nothing
# where the compiler inlines them.
include(CheckCXXSourceCompiles)
include(CMakePushCheckState)

set(plc_atomic_probe [[
#include <atomic>
#include <cstdint>
std::atomic<std::uint64_t> counter{0};
int main() { return static_cast<int>(counter.fetch_add(1) + counter.load()); }
]])
check_cxx_source_compiles("${plc_atomic_probe}" PLC_ATOMIC64_INLINE)
add_library(plc_atomic INTERFACE)
if(NOT PLC_ATOMIC64_INLINE)
  cmake_push_check_state(RESET)
  set(CMAKE_REQUIRED_LIBRARIES atomic)
  check_cxx_source_compiles("${plc_atomic_probe}" PLC_ATOMIC64_WITH_LIBATOMIC)
  cmake_pop_check_state()
  if(NOT PLC_ATOMIC64_WITH_LIBATOMIC)
    message(FATAL_ERROR "64-bit atomics link neither inline nor with libatomic")
  endif()
  target_link_libraries(plc_atomic INTERFACE atomic)
endif()
