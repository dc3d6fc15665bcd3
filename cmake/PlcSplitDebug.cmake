# Used at install time by PlcInstall.cmake: writes the debug information of
# each binary to DEBUG_DIR/.build-id/xx/yyyy.debug, the layout debuggers and
# the Debian dbgsym packages use.
function(plc_split_debug readelf objcopy debug_dir binaries)
  foreach(binary IN LISTS binaries)
    execute_process(COMMAND ${readelf} -n ${binary} OUTPUT_VARIABLE notes
                    RESULT_VARIABLE rc)
    if(NOT rc EQUAL 0 OR NOT notes MATCHES "Build ID: ([0-9a-f][0-9a-f])([0-9a-f]+)")
      message(FATAL_ERROR "${binary}: no build id, the debug information cannot be named")
    endif()
    set(out ${debug_dir}/.build-id/${CMAKE_MATCH_1}/${CMAKE_MATCH_2}.debug)
    get_filename_component(dir ${out} DIRECTORY)
    file(MAKE_DIRECTORY ${dir})
    message(STATUS "Installing: ${out}")
    execute_process(COMMAND ${objcopy} --only-keep-debug --compress-debug-sections
                            ${binary} ${out} RESULT_VARIABLE rc)
    if(NOT rc EQUAL 0)
      message(FATAL_ERROR "${objcopy} --only-keep-debug ${binary} failed")
    endif()
  endforeach()
endfunction()
