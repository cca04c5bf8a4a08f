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
