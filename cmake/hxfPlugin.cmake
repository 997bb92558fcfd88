# hxf_add_plugin(NAME source...)
#
# Builds the provider plugin libhxf-plugin-NAME.so from the given sources against hxf::core
# and hxf::common. The plugin exports CreatePlugin and DestroyPlugin and nothing else (a
# version script; everything else is compiled with hidden visibility), and `cmake --install`
# puts it into HXF_PLUGIN_DIR, the one folder the core loads plugins from.
#
# Used by the framework's own build and shipped in its CMake package (find_package(hxf)).
set(_hxf_plugin_version_script "${CMAKE_CURRENT_LIST_DIR}/hxf-plugin.map")

# hxf_origin_rpath(TARGET FROM_DIR): once installed in the absolute folder FROM_DIR, TARGET
# finds the framework's libraries (HXF_LIBRARY_DIR) relative to itself, through $ORIGIN.
function(hxf_origin_rpath target from_dir)
  file(RELATIVE_PATH to_libdir "${from_dir}" "${HXF_LIBRARY_DIR}")
  set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN/${to_libdir}")
endfunction()

function(hxf_add_plugin name)
  if(NOT name MATCHES "^[A-Za-z0-9_.-]+$")
    message(FATAL_ERROR "hxf_add_plugin: '${name}' is not a plugin name (letters, digits, _ . -)")
  endif()
  if(NOT ARGN)
    message(FATAL_ERROR "hxf_add_plugin(${name}): no source files given")
  endif()
  set(target hxf-plugin-${name})
  add_library(${target} MODULE ${ARGN})
  target_link_libraries(${target} PRIVATE hxf::core hxf::common)
  target_link_options(${target} PRIVATE "LINKER:--version-script=${_hxf_plugin_version_script}")
  set_target_properties(${target} PROPERTIES
    PREFIX "lib"
    C_VISIBILITY_PRESET hidden
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    LINK_DEPENDS "${_hxf_plugin_version_script}")
  if(HXF_PLUGIN_OUTPUT_DIR)
    set_target_properties(${target} PROPERTIES LIBRARY_OUTPUT_DIRECTORY "${HXF_PLUGIN_OUTPUT_DIR}")
  endif()
  if(HXF_LIBRARY_DIR)
    hxf_origin_rpath(${target} "${HXF_PLUGIN_DIR}")
  endif()
  install(TARGETS ${target} LIBRARY DESTINATION "${HXF_PLUGIN_DIR}")
endfunction()
