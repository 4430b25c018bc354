# Checks the four files of Monocypher 4.0.2 in MONOCYPHER_DIR against their pinned SHA-256 sums. The release
# archive and the source repository differ in the version word of each file's first line, so a file has two good sums.
# Included by the build; also a script: cmake -DMONOCYPHER_DIR=... -P cmake/monocypher_sums.cmake
set(_sums
  monocypher.c
  afe2b098c8569577a84488e0b98d276d1fba6506adea68bb9241a52111734c59
  02174117935699d418443c75a558a287deb06ef8cf7c1adced61d9047d2f323d
  monocypher.h
  f78bb31255cfb7beba66afd2137f5194c8a025cf40488b6cc1e295234d43f374
  fcaf6ed771358bb4f40fba016f6518ae86ec02b1b877d2cc35ad92d3a26fd7b3
  monocypher-ed25519.c
  7c9b16056cbd27521919e8a6f56a228808b9e718afc42e3d33f28c08e5abdee2
  97d581639dfa72be08a6d57deb7d79b736be001cb416819cab196d22559d242b
  monocypher-ed25519.h
  bd546edcd468d64e28caa3dbf4b1d6bfad7435c0ce994723fd81aae26405121b
  3a3035181f991a158d0e1c7567258f0bae8ba0f1f23c5512b4a1db1b3c9730ce)
while(_sums)
  list(POP_FRONT _sums _file _release _repository)
  if(NOT EXISTS "${MONOCYPHER_DIR}/${_file}")
    message(FATAL_ERROR "Monocypher: ${MONOCYPHER_DIR}/${_file} is missing; run scripts/setup")
  endif()
  file(SHA256 "${MONOCYPHER_DIR}/${_file}" _found)
  if(NOT _found STREQUAL _release AND NOT _found STREQUAL _repository)
    message(FATAL_ERROR "Monocypher: ${MONOCYPHER_DIR}/${_file} has the SHA-256 ${_found}, "
      "which is not that of version 4.0.2 (${_release} or ${_repository})")
  endif()
endwhile()
