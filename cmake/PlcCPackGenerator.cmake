# Read by cpack once per generator (CPACK_PROJECT_CONFIG_FILE).
if(CPACK_GENERATOR STREQUAL "DEB")
  # One package per component. CPack itself moves the debug information into
  # the -dbgsym packages, so the binaries reach it unstripped.
  list(REMOVE_ITEM CPACK_COMPONENTS_ALL debug)
  set(CPACK_COMPONENTS_GROUPING IGNORE)
  set(CPACK_STRIP_FILES OFF)
elseif(CPACK_GENERATOR STREQUAL "TGZ")
  # The panel tarball (library and tools) and the debug tarball, both under
  # one top directory; a stripped install writes the .debug files of the
  # debug component.
  set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
  set(CPACK_COMPONENT_INCLUDE_TOPLEVEL_DIRECTORY ON)
  set(CPACK_STRIP_FILES ON)
endif()
