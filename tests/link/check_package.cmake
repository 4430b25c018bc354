# Installs the library into an empty folder and builds a C program against it as a user would: with find_package,
# shared and static, and with pkg-config where that is on the machine.
#   cmake -DBUILD=... -DCC=cc -DPKG_CONFIG=... -DSOURCE=.../consumer -DWORK=... -P check_package.cmake
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE code OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT code EQUAL 0)
    message(FATAL_ERROR "${ARGN}: ${code}\n${output}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${WORK})
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${WORK}/prefix)
run(${CMAKE_COMMAND} -S ${SOURCE} -B ${WORK}/build -G Ninja -DCMAKE_C_COMPILER=${CC}
  -DCMAKE_PREFIX_PATH=${WORK}/prefix)
run(${CMAKE_COMMAND} --build ${WORK}/build)
run(${WORK}/build/with_shared)
run(${WORK}/build/with_static)

if(PKG_CONFIG)
  file(GLOB_RECURSE description ${WORK}/prefix/*/tarnglider.pc)
  get_filename_component(folder "${description}" DIRECTORY)
  set(ENV{PKG_CONFIG_PATH} ${folder})
  run(${PKG_CONFIG} --cflags --libs tarnglider)
  separate_arguments(flags UNIX_COMMAND "${output}")
  run(${CC} ${SOURCE}/main.c -o ${WORK}/with_pkg_config ${flags})
  run(${PKG_CONFIG} --variable=libdir tarnglider)
  string(STRIP "${output}" libdir)
  set(ENV{LD_LIBRARY_PATH} ${libdir})
  run(${WORK}/with_pkg_config)
endif()
