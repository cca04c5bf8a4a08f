# ovl_core_layer(<layer> SOURCES <file>... HEADERS <file>... [DEPENDS <layer>...])
#   The object library ovl_core_<layer> of the files in src/core/<layer>. Its headers are
#   reachable as <core/<layer>/Name.hpp> through an include root that holds only this
#   layer (a symbolic link in the build tree), so a file of the layer, or of a layer that
#   names it in DEPENDS, can include them and no other file can.
#   OVL_CORE_INCLUDE_ROOT_<layer> names that root for targets outside the layers.
function(ovl_core_layer layer)
  cmake_parse_arguments(ARG "" "" "SOURCES;HEADERS;DEPENDS" ${ARGN})
  set(dir ${CMAKE_CURRENT_SOURCE_DIR}/core/${layer})
  set(root ${CMAKE_BINARY_DIR}/core-include/${layer})
  file(MAKE_DIRECTORY ${root}/core)
  file(CREATE_LINK ${dir} ${root}/core/${layer} SYMBOLIC)
  list(TRANSFORM ARG_SOURCES PREPEND ${dir}/)
  list(TRANSFORM ARG_HEADERS PREPEND ${dir}/)
  add_library(ovl_core_${layer} OBJECT ${ARG_SOURCES} ${ARG_HEADERS})
  target_include_directories(ovl_core_${layer} PUBLIC ${root})
  target_link_libraries(ovl_core_${layer} PUBLIC platform)
  ovl_reuse_precompiled_headers(ovl_core_${layer})
  foreach(dependency ${ARG_DEPENDS})
    target_link_libraries(ovl_core_${layer} PUBLIC ovl_core_${dependency})
  endforeach()
  set(OVL_CORE_INCLUDE_ROOT_${layer} ${root} CACHE INTERNAL "")
endfunction()
