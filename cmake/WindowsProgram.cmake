# windows_program(TARGET DESCRIPTION): what a program that ships carries on Windows: version information, a manifest, and
# its imports under the eye of the test "imports". Elsewhere it does nothing, so that callers needn't ask.
function(windows_program target description)
  if(NOT WIN32)
    return()
  endif()
  set(TARN_PROGRAM ${target})
  set(TARN_DESCRIPTION "${description}")
  set(TARN_MANIFEST ${PROJECT_SOURCE_DIR}/service/program.manifest)
  set(resources ${PROJECT_BINARY_DIR}/resources/${target}.rc)
  configure_file(${PROJECT_SOURCE_DIR}/service/program.rc.in ${resources} @ONLY)
  set_source_files_properties(${resources} PROPERTIES OBJECT_DEPENDS ${TARN_MANIFEST})
  target_sources(${target} PRIVATE ${resources})
  # No time of the build in the file: the same sources make the same program. What ships is stripped by the linker, since
  # the tool that does it afterwards writes a time again.
  target_link_options(${target} PRIVATE -Wl,--no-insert-timestamp $<$<CONFIG:Release>:-s>)
  set_property(GLOBAL APPEND PROPERTY TARN_WINDOWS_PROGRAMS ${target})
endfunction()
