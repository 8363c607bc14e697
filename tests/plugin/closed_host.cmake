# SPDX-License-Identifier: MIT
# Builds a copy of what is shipped against the stand-ins of a site's host, installs it, moves it and runs it.
function(run)
  execute_process(COMMAND ${ARGN} OUTPUT_VARIABLE said ERROR_VARIABLE said RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${ARGN}: ${result}\n${said}")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK})
file(COPY ${SOURCE}/CMakeLists.txt ${SOURCE}/src ${SOURCE}/include DESTINATION ${WORK}/source)
run(${CMAKE_COMMAND} -S ${WORK}/source -B ${WORK}/build -G ${GENERATOR} -DCMAKE_C_COMPILER=${CC}
    -DCMAKE_CXX_COMPILER=${CXX} -DKVR_SANITIZE=${SANITIZE} -DKVR_HOST_LIB_DIR=${HOST}/linked)
run(${CMAKE_COMMAND} --build ${WORK}/build)
run(${CMAKE_COMMAND} --install ${WORK}/build --prefix ${WORK}/installed)
file(RENAME ${WORK}/installed ${WORK}/moved)
run(${TEST} ${HOST}/loaded ${WORK}/moved/lib/libplug_kavro_chls.so)
