# README's example is the file that the tests compile, to the letter.
file(READ ${README} readme)
file(READ ${EXAMPLE} example)
string(FIND "${readme}" "```c\n${example}```" at)
if(at EQUAL -1)
  message(FATAL_ERROR "README.md's example is not ${EXAMPLE}; copy it over")
endif()
