# Where the service and the store find Win32: on Windows the system's libraries, elsewhere the headers of the tests'
# simulated machine, which a test links for what is behind them.
#
# A program may import only libraries that Windows takes from its list of known ones, whatever lies beside the program.
# windows_late holds the others' functions: each is looked up at its first use, in the system directory's library
# (service/delay_load.cpp). The stubs pass on whole numbers and pointers, which is all that these functions take. A
# function that is used and not named here fails the link.
add_library(windows_calls INTERFACE)
if(NOT WIN32)
  target_include_directories(windows_calls SYSTEM INTERFACE ${PROJECT_SOURCE_DIR}/tests/support/winsim/include)
  return()
endif()

add_library(windows_late INTERFACE)

# late_import(TARGET LIBRARY FUNCTIONS...): gives the interface library TARGET the stubs of these functions.
function(late_import target library)
  set(folder ${PROJECT_BINARY_DIR}/late)
  list(JOIN ARGN "\n" functions)
  file(CONFIGURE OUTPUT ${folder}/${library}.def CONTENT "LIBRARY ${library}.dll\nEXPORTS\n${functions}\n")
  add_custom_command(OUTPUT ${folder}/liblate_${library}.a
    COMMAND ${CMAKE_DLLTOOL} --input-def ${library}.def --output-delaylib liblate_${library}.a
    DEPENDS ${folder}/${library}.def WORKING_DIRECTORY ${folder} VERBATIM)
  add_custom_target(late_${library} DEPENDS ${folder}/liblate_${library}.a)
  add_dependencies(${target} late_${library})
  target_link_libraries(${target} INTERFACE ${folder}/liblate_${library}.a)
endfunction()

late_import(windows_late advapi32 SystemFunction036) # known itself, but it hands this one on to a library that isn't
late_import(windows_late bcrypt BCryptGenRandom)
late_import(windows_late crypt32 CryptProtectData CryptUnprotectData)
late_import(windows_late iphlpapi ConvertLengthToIpv4Mask GetAdaptersAddresses)
late_import(windows_late userenv CreateEnvironmentBlock DestroyEnvironmentBlock)

# Behind the stubs, which call it.
add_library(delay_load STATIC ${PROJECT_SOURCE_DIR}/service/delay_load.cpp)
target_link_libraries(delay_load PRIVATE tarn_flags)
target_link_libraries(windows_late INTERFACE delay_load)
target_link_libraries(windows_calls INTERFACE windows_late advapi32 ole32 shell32 ws2_32)
