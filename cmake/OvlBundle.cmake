# Loadable bundles: a shared module that carries its manifest inside.
#
# How modules and the host share the platform code is described in
# platform/include/foundation/storage/provider/BundleRuntime.hpp: the module does not link
# the static `platform` library; the executable that loads it holds all of `platform` and
# exports its symbols.
#
# ovl_embed_manifest(<target> <manifest.json>)
#   Compiles the manifest text into the ELF section ".bundle.manifest" of <target>, where
#   the platform's BundleRuntime reads it back from the module file before loading it.
#
# ovl_add_bundle(<target> MANIFEST <manifest.json> SOURCES <source>... [LIBS <lib>...])
#   A module (add_library MODULE) with the embedded manifest, compiled against the
#   platform's headers and compile definitions without linking `platform`. LIBS must not
#   bring `platform` in either (directly or through their usage requirements).
#
# ovl_bundle_host(<target>)
#   Makes the executable <target> able to load bundles: links all of `platform` into it
#   (--whole-archive) and exports its symbols (ENABLE_EXPORTS, -rdynamic).

# The folder of this file, kept while it is included: functions run later, from other lists.
set(OVL_BUNDLE_CMAKE_DIR ${CMAKE_CURRENT_LIST_DIR} CACHE INTERNAL "")

function(ovl_embed_manifest target manifest)
  get_filename_component(manifest_abs ${manifest} ABSOLUTE)
  set(out ${CMAKE_CURRENT_BINARY_DIR}/${target}_manifest.cpp)
  add_custom_command(
    OUTPUT ${out}
    COMMAND ${CMAKE_COMMAND} -DIN=${manifest_abs} -DOUT=${out} -P ${OVL_BUNDLE_CMAKE_DIR}/OvlEmbedManifest.cmake
    DEPENDS ${manifest_abs} ${OVL_BUNDLE_CMAKE_DIR}/OvlEmbedManifest.cmake
    COMMENT "Embedding bundle manifest into ${target}")
  target_sources(${target} PRIVATE ${out})
endfunction()

function(ovl_add_bundle target)
  cmake_parse_arguments(ARG "" "MANIFEST" "SOURCES;LIBS" ${ARGN})
  if(NOT ARG_MANIFEST OR NOT ARG_SOURCES)
    message(FATAL_ERROR "ovl_add_bundle(${target}) needs MANIFEST and SOURCES")
  endif()
  add_library(${target} MODULE ${ARG_SOURCES})
  ovl_embed_manifest(${target} ${ARG_MANIFEST})
  ovl_bundle_compile_against_platform(${target})
  if(ARG_LIBS)
    target_link_libraries(${target} PRIVATE ${ARG_LIBS})
  endif()
endfunction()

# The platform's include directories and compile definitions for <target>, without
# linking the library.
function(ovl_bundle_compile_against_platform target)
  target_include_directories(${target} PRIVATE $<TARGET_PROPERTY:platform,INTERFACE_INCLUDE_DIRECTORIES>)
  target_compile_definitions(${target} PRIVATE $<TARGET_PROPERTY:platform,INTERFACE_COMPILE_DEFINITIONS>)
  target_link_libraries(${target} PRIVATE Boost::boost)
endfunction()

function(ovl_bundle_host target)
  set_target_properties(${target} PROPERTIES ENABLE_EXPORTS ON)
  # A link option rather than $<LINK_LIBRARY:WHOLE_ARCHIVE,platform>: the target usually
  # links `platform` plainly as well, and CMake refuses one library with two features.
  # The plain link that follows adds nothing and brings platform's own dependencies.
  target_link_options(${target} PRIVATE "LINKER:--whole-archive,$<TARGET_FILE:platform>,--no-whole-archive")
  target_link_libraries(${target} PRIVATE platform)
endfunction()
