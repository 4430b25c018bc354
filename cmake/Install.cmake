# What `cmake --install` places, which scripts/package packs. On Linux: headers, both libraries, the CMake package
# TarnGlider, tarnglider.pc and the programs; the static library holds Monocypher's objects, so neither package asks for
# it. On Windows: the service, and beside it the worker and the administrator's tool.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# install_programs(FOLDER DOCS TARGETS...): those of the programs that this build makes, and the documents.
function(install_programs folder docs)
  foreach(target IN LISTS ARGN)
    if(TARGET ${target})
      install(TARGETS ${target} RUNTIME DESTINATION ${folder})
    endif()
  endforeach()
  install(FILES README.md DESTINATION ${docs})
  install(DIRECTORY docs DESTINATION ${docs} FILES_MATCHING PATTERN "*.md")
endfunction()

if(WIN32)
  install_programs(. . TarnGliderHostService TarnGliderHostWorker tarnctl)
  return()
endif()

install_programs(${CMAKE_INSTALL_BINDIR} ${CMAKE_INSTALL_DATADIR}/doc/tarnglider tarn-client tarn-host tarn-server)

set(TARN_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/TarnGlider)
set(TARN_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(DIRECTORY core/include/tarnglider DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(TARGETS tarnglider tarnglider_static EXPORT TarnGliderTargets)
install(EXPORT TarnGliderTargets NAMESPACE TarnGlider:: DESTINATION ${TARN_PACKAGE_DIR})

configure_package_config_file(cmake/TarnGliderConfig.cmake.in ${PROJECT_BINARY_DIR}/package/TarnGliderConfig.cmake
  INSTALL_DESTINATION ${TARN_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/TarnGliderConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/package/TarnGliderConfig.cmake
  ${PROJECT_BINARY_DIR}/package/TarnGliderConfigVersion.cmake DESTINATION ${TARN_PACKAGE_DIR})

# The prefix is told from the file's own place, so that an installed tree may be moved as a whole.
file(RELATIVE_PATH TARN_PREFIX_FROM_PC /prefix/${TARN_PKGCONFIG_DIR} /prefix)
configure_file(cmake/tarnglider.pc.in ${PROJECT_BINARY_DIR}/package/tarnglider.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/package/tarnglider.pc DESTINATION ${TARN_PKGCONFIG_DIR})
