# Installs what the Linux archive holds, moves it, as unpacking it elsewhere does, and builds programs against it as a
# user would: in C alone and in C++, with find_package, shared and static, and with pkg-config where that is on the
# machine. The programs of the archive run, too.
#   cmake -DBUILD=... -DCC=cc -DCXX=c++ -DPKG_CONFIG=... -DSOURCES=tests/link -DWORK=... -P check_package.cmake
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE code OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT code EQUAL 0)
    message(FATAL_ERROR "${ARGN}: ${code}\n${output}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${WORK})
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${WORK}/made)
file(RENAME ${WORK}/made ${WORK}/prefix)
foreach(consumer consumer consumer_cxx)
  run(${CMAKE_COMMAND} -S ${SOURCES}/${consumer} -B ${WORK}/${consumer} -G Ninja -DCMAKE_C_COMPILER=${CC}
    -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_PREFIX_PATH=${WORK}/prefix --no-warn-unused-cli)
  run(${CMAKE_COMMAND} --build ${WORK}/${consumer})
  run(${WORK}/${consumer}/with_shared)
  run(${WORK}/${consumer}/with_static)
endforeach()
file(GLOB programs ${WORK}/prefix/bin/*)
foreach(program IN LISTS programs)
  run(${program} --help)
endforeach()

if(PKG_CONFIG)
  file(GLOB_RECURSE description ${WORK}/prefix/*/tarnglider.pc)
  get_filename_component(folder "${description}" DIRECTORY)
  set(ENV{PKG_CONFIG_PATH} ${folder})
  run(${PKG_CONFIG} --cflags --libs tarnglider)
  separate_arguments(flags UNIX_COMMAND "${output}")
  run(${CC} ${SOURCES}/consumer/main.c -o ${WORK}/with_pkg_config ${flags})
  run(${PKG_CONFIG} --variable=libdir tarnglider)
  string(STRIP "${output}" libdir)
  set(ENV{LD_LIBRARY_PATH} ${libdir})
  run(${WORK}/with_pkg_config)
endif()
