# The one dependency of what ships: four files, checked, compiled with optimisation whatever the build type.
set(MONOCYPHER_DIR "${PROJECT_SOURCE_DIR}/.deps/monocypher" CACHE PATH "folder with Monocypher 4.0.2's four files")
include(cmake/monocypher_sums.cmake)

add_library(monocypher OBJECT ${MONOCYPHER_DIR}/monocypher.c ${MONOCYPHER_DIR}/monocypher-ed25519.c)
target_include_directories(monocypher SYSTEM PUBLIC $<BUILD_INTERFACE:${MONOCYPHER_DIR}>)
target_compile_options(monocypher PRIVATE -O3 -fvisibility=hidden)
