# hxf_shipped_library(TARGET EXPORT_NAME VERSION_SCRIPT)
# What every installed library of the framework gets: a versioned SONAME (libX.so.MAJOR ->
# libX.so.MAJOR.MINOR.PATCH), exports limited by its version script, an alias hxf::NAME as
# consumers of the installed package see it, and a RUNPATH relative to itself, so installed
# libraries find their siblings wherever the prefix is.
function(hxf_shipped_library target export_name version_script)
  set_target_properties(${target} PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    EXPORT_NAME ${export_name}
    INSTALL_RPATH "$ORIGIN"
    LINK_DEPENDS "${version_script}")
  target_link_options(${target} PRIVATE "LINKER:--version-script=${version_script}")
  add_library(hxf::${export_name} ALIAS ${target})
endfunction()
