# SPDX-License-Identifier: MIT
# kvr_exports(LIBRARY EXPORTS names... USES regex FORBIDDEN regex): a test that the library exports these functions
# alone and uses nothing but libc and what USES matches, and nothing forbidden.
if(NOT CMAKE_SCRIPT_MODE_FILE)
  function(kvr_exports library)
    if(CMAKE_CXX_FLAGS MATCHES "--coverage") # whose counters are exported too
      return()
    endif()
    cmake_parse_arguments(ARG "" "USES;FORBIDDEN" "EXPORTS" ${ARGN})
    add_test(NAME ${library}_exports
      COMMAND ${CMAKE_COMMAND} -DNM=${CMAKE_NM} -DLIB=$<TARGET_FILE:${library}> "-DEXPORTS=${ARG_EXPORTS}" "-DUSES=${ARG_USES}"
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
