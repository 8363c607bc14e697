# SPDX-License-Identifier: MIT
# kvr_exports(LIBRARY EXPORTS names... USES regex FORBIDDEN regex NEEDS names...): a test that the library exports these
# functions alone, uses nothing but libc and what USES matches, and nothing forbidden; that it needs all of the host's
# libraries and those named, looks for them in its own folder, and finds a missing symbol when it is loaded.
if(NOT CMAKE_SCRIPT_MODE_FILE)
  function(kvr_exports library)
    if(CMAKE_CXX_FLAGS MATCHES "--coverage") # whose counters are exported too
      return()
    endif()
    cmake_parse_arguments(ARG "" "USES;FORBIDDEN" "EXPORTS;NEEDS" ${ARGN})
    add_test(NAME ${library}_exports
      COMMAND ${CMAKE_COMMAND} -DNM=${CMAKE_NM} -DREADELF=${CMAKE_READELF} "-DNEEDS=${ARG_NEEDS}" -DLIB=$<TARGET_FILE:${library}> "-DEXPORTS=${ARG_EXPORTS}" "-DUSES=${ARG_USES}"
              "-DFORBIDDEN=${ARG_FORBIDDEN}" "-DSANITIZE=${KVR_SANITIZE}" -P ${CMAKE_CURRENT_FUNCTION_LIST_FILE})
  endfunction()
  return()
endif()

execute_process(COMMAND ${NM} -D ${LIB} OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
string(REGEX REPLACE " [A-Za-z] __(asan|ubsan|odr_asan)[^\n]*" "" symbols "${symbols}")
string(REGEX MATCHALL " [ABCDGRST] [^\n]+" found "${symbols}")
list(TRANSFORM found REPLACE "^ . " "")
list(SORT found)
list(SORT EXPORTS)
if(NOT found STREQUAL EXPORTS)
  message(FATAL_ERROR "exported: ${found}")
endif()
string(REGEX MATCHALL " U [^\n]+" used "${symbols}")
list(TRANSFORM used REPLACE "^ U " "")
list(LENGTH used count)
if(count LESS 20)
  message(FATAL_ERROR "uses too little to be true: ${used}")
endif()
foreach(symbol IN LISTS used)
  # A sanitizer's library takes libc's place.
  if(symbol MATCHES "^(${FORBIDDEN})(@|$)" OR NOT (SANITIZE OR symbol MATCHES "@GLIBC_|^(${USES})"))
    message(FATAL_ERROR "must not be used here: ${symbol}")
  endif()
endforeach()

execute_process(COMMAND ${READELF} -d ${LIB} OUTPUT_VARIABLE dynamic COMMAND_ERROR_IS_FATAL ANY)
string(REGEX REPLACE "[][]" "" dynamic "${dynamic}") # they would hold a list together
string(REGEX MATCHALL "library: lib[a-z_]+" needed "${dynamic}")
list(TRANSFORM needed REPLACE "^library: lib" "")
list(FILTER needed EXCLUDE REGEX "^(a|ub)san$")
list(APPEND NEEDS kavro_queue kavro_object kavro_ac kavro_log core_ctx plug_mgr kavutil c)
list(SORT needed)
list(SORT NEEDS)
if(NOT needed STREQUAL NEEDS OR NOT dynamic MATCHES "runpath: \\$ORIGIN\n")
  message(FATAL_ERROR "needs ${needed} instead of ${NEEDS}, or has another runpath: ${dynamic}")
endif()
if(NOT dynamic MATCHES "BIND_NOW")
  message(FATAL_ERROR "its symbols are looked up at their first call, which may be in a handler: ${dynamic}")
endif()
