# SPDX-License-Identifier: MIT
# cmake -DNM=... -DREADELF=... -DLIB=... -P exports.cmake: the library exports its five functions and needs no C++ runtime.
execute_process(COMMAND ${NM} -D --defined-only ${LIB} OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL " [A-Za-z] [^\n]+" found "${symbols}")
list(SORT found)
set(wanted " T netTcpClientCreate" " T netTcpSSLCheckCert" " T netTcpSSLInitCtx" " T netTcpSSLReadN" " T netTcpSSLWriteN")
if(NOT found STREQUAL wanted)
  message(FATAL_ERROR "exported: ${found}")
endif()
execute_process(COMMAND ${NM} -D --undefined-only ${LIB} OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
if(symbols MATCHES " (_Znw[a-z]+|_ZdlPv[a-z]*|strerror|printf|fprintf)[@\n]")
  message(FATAL_ERROR "must not be used here: ${CMAKE_MATCH_1}")
endif()
execute_process(COMMAND ${READELF} -d ${LIB} OUTPUT_VARIABLE needed COMMAND_ERROR_IS_FATAL ANY)
# The sanitizers bring it along.
if(NOT SANITIZE AND needed MATCHES "libstdc\\+\\+")
  message(FATAL_ERROR "needs the C++ runtime library")
endif()
