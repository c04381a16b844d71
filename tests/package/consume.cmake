# Installs the build to a scratch prefix, then configures, builds and runs the consumer against it.
# The consumer, a program of the documents, is copied first, so that no header reaches it by lying
# next to it in the tree.
file(REMOVE_RECURSE ${SCRATCH})
file(COPY ${CONSUMER}/CMakeLists.txt ${CONSUMER}/../../../examples/embedded/main.cpp
  DESTINATION ${SCRATCH}/source)

function(run)
  execute_process(COMMAND ${ARGN} COMMAND_ECHO STDOUT COMMAND_ERROR_IS_FATAL ANY)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${SCRATCH}/prefix)
# Libraries share a directory with everybody's, and the service starts the program that was installed.
file(GLOB_RECURSE foreign ${SCRATCH}/prefix/lib*.a)
list(FILTER foreign EXCLUDE REGEX "/libIgmpHostProxy[A-Za-z]*\\.a$")
if(foreign)
  message(FATAL_ERROR "names that may collide: ${foreign}")
endif()
set(unit ${SCRATCH}/prefix/lib/systemd/system/ihproxyd.service)
if(EXISTS ${unit})
  file(STRINGS ${unit} start REGEX "^ExecStart=")
  string(REGEX REPLACE "^ExecStart=([^ ]*) .*" "\\1" program "${start}")
  run(${program} --version)
  if(NOT program MATCHES "^${SCRATCH}/prefix/")
    message(FATAL_ERROR "the service starts ${program}")
  endif()
endif()
run(${CMAKE_COMMAND} -S ${SCRATCH}/source -B ${SCRATCH}/build -G ${GENERATOR}
  -DCMAKE_CXX_COMPILER=${COMPILER} -DCMAKE_PREFIX_PATH=${SCRATCH}/prefix)
run(${CMAKE_COMMAND} --build ${SCRATCH}/build)
run(${SCRATCH}/build/consumer)
# The same without CMake, and with every header: none draws in what is not installed.
file(GLOB_RECURSE headers ${SCRATCH}/prefix/include/*.h)
list(TRANSFORM headers PREPEND "-include" OUTPUT_VARIABLE included)
file(GLOB_RECURSE description ${SCRATCH}/prefix/IgmpHostProxy.pc)
execute_process(COMMAND pkg-config --cflags --libs ${description}
  OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
separate_arguments(flags UNIX_COMMAND ${flags})
run(${COMPILER} -std=c++20 ${included} ${SCRATCH}/source/main.cpp ${flags} -o ${SCRATCH}/build/other)
run(${SCRATCH}/build/other)

# Of the macros that the headers make, users see those alone that are meant for them: a list of
# attributes has a name that may well be one of theirs.
foreach(header IN LISTS headers)
  file(STRINGS ${header} left REGEX "^ *# *define ")
  file(STRINGS ${header} taken REGEX "^ *# *undef ")
  list(TRANSFORM left REPLACE "^ *# *define ([A-Za-z0-9_]+).*" "#undef \\1")
  list(REMOVE_ITEM left ${taken})
  list(FILTER left EXCLUDE REGEX " ((NEX|IHP)_.*|IGMP_PACKET_COUNTERS|IGMP_NO_COUNTER)$")
  if(left)
    message(FATAL_ERROR "macros that ${header} leaves defined: ${left}")
  endif()
endforeach()
