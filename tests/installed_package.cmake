# Installs the library from BUILD_DIR below WORK_DIR, then builds examples/embed against what was installed, and runs it.

function(run)
  execute_process(COMMAND ${ARGV} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix)
run(${CMAKE_COMMAND} -G Ninja -S ${SOURCE_DIR}/examples/embed -B ${WORK_DIR}/embed -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix
  -DCMAKE_CXX_COMPILER=${CXX} "-DCMAKE_CXX_FLAGS=${CXX_FLAGS} -Wall -Wextra -Wpedantic -Werror")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/embed)
run(${WORK_DIR}/embed/embed)

# The README shows the same program.
file(READ ${SOURCE_DIR}/README.md readme)
file(READ ${SOURCE_DIR}/examples/embed/main.cpp program)
string(FIND "${readme}" "${program}" position)
if(position EQUAL -1)
  message(FATAL_ERROR "README.md does not show examples/embed/main.cpp as it is")
endif()
