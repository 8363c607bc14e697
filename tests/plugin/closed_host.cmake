# SPDX-License-Identifier: MIT
# Builds a copy of what is shipped against a folder of host libraries, without any other part of the tree, installs it,
# moves it and runs a channel with it under the scripted host.
function(run)
  execute_process(COMMAND ${ARGN} OUTPUT_VARIABLE said ERROR_VARIABLE said RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${ARGN}: ${result}\n${said}")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK})
file(COPY ${SOURCE}/CMakeLists.txt ${SOURCE}/src ${SOURCE}/include DESTINATION ${WORK}/source)
run(${CMAKE_COMMAND} -S ${WORK}/source -B ${WORK}/build -G ${GENERATOR} -DCMAKE_C_COMPILER=${CC}
    -DCMAKE_CXX_COMPILER=${CXX} -DKVR_SANITIZE=${SANITIZE} -DKVR_HOST_LIB_DIR=${HOST})
run(${CMAKE_COMMAND} --build ${WORK}/build)
run(${CMAKE_COMMAND} --install ${WORK}/build --prefix ${WORK}/installed)
file(RENAME ${WORK}/installed ${WORK}/moved)
foreach(library plug_kavro_chls net_tcp) # the program would find those of the tree
  if(NOT EXISTS ${WORK}/moved/lib/lib${library}.so)
    message(FATAL_ERROR "not installed: ${library}")
  endif()
endforeach()
run(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${WORK}/moved/lib:${HOST} ${TEST} --gtest_filter=Send.*)
