# Precompiled headers: the standard and Boost headers that nearly every file includes
# are parsed once per build, in the platform library, and every other target of the
# same flags reuses that result (about 3 s of parsing per file otherwise).
#
# ovl_reuse_precompiled_headers(<library>)
#   Makes <library> compile against the platform's precompiled headers. Libraries only:
#   executables are compiled as position-independent executables, which a header
#   precompiled for a library does not fit (and a test is one file: a header
#   precompiled for it alone would save nothing).
#
# OVL_PRECOMPILED_HEADERS=OFF compiles every file on its own includes only; a build
# with it off (the Clang build of make test) is what shows a missing include.
option(OVL_PRECOMPILED_HEADERS "Precompile the common standard and Boost headers" ON)

set(OVL_PRECOMPILED_HEADER_LIST
  <algorithm> <atomic> <chrono> <condition_variable> <cstdint> <functional> <map> <memory>
  <mutex> <optional> <set> <string> <string_view> <thread> <unordered_map> <utility> <variant> <vector>
  <boost/date_time/posix_time/posix_time.hpp>
  <boost/property_tree/ptree.hpp>
  <boost/property_tree/json_parser.hpp>
  CACHE INTERNAL "")

function(ovl_precompile_headers_in target)
  if(OVL_PRECOMPILED_HEADERS)
    target_precompile_headers(${target} PRIVATE ${OVL_PRECOMPILED_HEADER_LIST})
  endif()
endfunction()

function(ovl_reuse_precompiled_headers target)
  if(OVL_PRECOMPILED_HEADERS)
    target_precompile_headers(${target} REUSE_FROM platform)
  endif()
endfunction()
