# Writes the C++ block of a document that follows the line "<!-- example: NAME -->" to a file.
#
#   cmake -DDOCUMENT=... -DNAME=... -DOUTPUT=... -P ExtractExample.cmake
file(READ "${DOCUMENT}" text)
set(head "<!-- example: ${NAME} -->\n```cpp\n")
string(FIND "${text}" "${head}" begin)
if(begin EQUAL -1)
  message(FATAL_ERROR "${DOCUMENT} has no C++ block below a line '<!-- example: ${NAME} -->'")
endif()
string(LENGTH "${head}" length)
math(EXPR begin "${begin} + ${length}")
string(SUBSTRING "${text}" ${begin} -1 text)
string(FIND "${text}" "\n```\n" end)
if(end EQUAL -1)
  message(FATAL_ERROR "${DOCUMENT}: the example ${NAME} has no end")
endif()
string(SUBSTRING "${text}" 0 ${end} text)
file(WRITE "${OUTPUT}" "${text}\n")
