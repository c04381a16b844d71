# Installs the build to a scratch prefix, then configures, builds and runs the consumer against it.
# The consumer is copied first, so that no header reaches it by lying next to it in the tree.
file(REMOVE_RECURSE ${SCRATCH})
file(COPY ${CONSUMER}/ DESTINATION ${SCRATCH}/source)

function(run)
  execute_process(COMMAND ${ARGN} COMMAND_ECHO STDOUT COMMAND_ERROR_IS_FATAL ANY)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${SCRATCH}/prefix)
run(${CMAKE_COMMAND} -S ${SCRATCH}/source -B ${SCRATCH}/build -G ${GENERATOR}
  -DCMAKE_CXX_COMPILER=${COMPILER} -DCMAKE_PREFIX_PATH=${SCRATCH}/prefix)
run(${CMAKE_COMMAND} --build ${SCRATCH}/build)
run(${SCRATCH}/build/consumer)
