# Loadable bundles: a shared module that carries its manifest inside.
#
# ovl_embed_manifest(<target> <manifest.json>)
#   Compiles the manifest text into the ELF section ".bundle.manifest" of <target>, where
#   the platform's BundleRuntime reads it back from the module file before loading it.
function(ovl_embed_manifest target manifest)
  get_filename_component(manifest_abs ${manifest} ABSOLUTE)
  set(out ${CMAKE_CURRENT_BINARY_DIR}/${target}_manifest.cpp)
  add_custom_command(
    OUTPUT ${out}
    COMMAND ${CMAKE_COMMAND} -DIN=${manifest_abs} -DOUT=${out} -P ${OVL_CMAKE_DIR}/OvlEmbedManifest.cmake
    DEPENDS ${manifest_abs} ${OVL_CMAKE_DIR}/OvlEmbedManifest.cmake
    COMMENT "Embedding bundle manifest into ${target}")
  target_sources(${target} PRIVATE ${out})
endfunction()
set(OVL_CMAKE_DIR ${CMAKE_CURRENT_LIST_DIR} CACHE INTERNAL "")

# ovl_add_layer_library(<name> <include dir> "<sources>" <deps>...)
#   A static library for one layer or store with a public include dir; an interface
#   library while the folder has no sources yet.
function(ovl_add_layer_library name include sources)
  if(sources)
    add_library(${name} STATIC ${sources})
    target_include_directories(${name} PUBLIC ${include})
    target_link_libraries(${name} PUBLIC ${ARGN})
  else()
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE ${include})
    target_link_libraries(${name} INTERFACE ${ARGN})
  endif()
endfunction()
