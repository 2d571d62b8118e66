# The program that README.md shows is the one that the build compiles.
file(READ "${SOURCE}/README.md" readme)
file(READ "${SOURCE}/Examples/plain.cpp" example)
string(FIND "${readme}" "```cpp\n${example}```\n" position)
if(position EQUAL -1)
  message(FATAL_ERROR "README.md does not hold Examples/plain.cpp as it is")
endif()
