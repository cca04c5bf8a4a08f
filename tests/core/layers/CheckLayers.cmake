# Builds the two probes of tests/core/layers in the build tree BUILD: the include of a
# lower layer must compile, the include of a higher one must fail for want of the header.
execute_process(COMMAND ${CMAKE_COMMAND} --build ${BUILD} --target layer_probe_allowed
                RESULT_VARIABLE allowed OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(NOT allowed EQUAL 0)
  message(FATAL_ERROR "a file of the metadata layer cannot include the util layer:\n${out}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${BUILD} --target layer_probe_forbidden
                RESULT_VARIABLE forbidden OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(forbidden EQUAL 0)
  message(FATAL_ERROR "a file of the metadata layer could include the content layer")
endif()
if(NOT out MATCHES "core/content/ContentCache.hpp")
  message(FATAL_ERROR "the forbidden include failed for another reason:\n${out}")
endif()
