# One test executable and one CTest entry per test file.
#
# ovl_add_test(<file> LABELS <label>... LIBS <lib>...)
#   Builds <file> (a GoogleTest source) into an executable named after it and registers
#   it with CTest under the given labels. A file whose name contains "concurrency" also
#   gets the label "concurrency" (these run under ThreadSanitizer); one whose name
#   contains "slow" gets "slow". When OVL_TEST_LABEL is set, files without that label are
#   skipped.
#
# ovl_add_tests_in(<dir> LABEL <layer> LIBS <lib>...)
#   Calls ovl_add_test for every *_test.cpp in <dir>.
find_package(GTest REQUIRED)

function(ovl_add_test file)
  cmake_parse_arguments(ARG "" "" "LABELS;LIBS" ${ARGN})
  get_filename_component(name ${file} NAME_WE)
  set(labels ${ARG_LABELS})
  if(name MATCHES "concurrency")
    list(APPEND labels concurrency)
  endif()
  if(name MATCHES "slow")
    list(APPEND labels slow)
  endif()
  if(OVL_TEST_LABEL AND NOT OVL_TEST_LABEL IN_LIST labels)
    return()
  endif()
  add_executable(${name} ${file})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gmock GTest::gtest_main Threads::Threads)
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES LABELS "${labels}" TIMEOUT 600)
endfunction()

function(ovl_add_tests_in dir)
  cmake_parse_arguments(ARG "" "LABEL" "LIBS" ${ARGN})
  file(GLOB files CONFIGURE_DEPENDS ${dir}/*_test.cpp)
  foreach(file ${files})
    ovl_add_test(${file} LABELS ${ARG_LABEL} LIBS ${ARG_LIBS})
  endforeach()
endfunction()
