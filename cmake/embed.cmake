# Writes OUTPUT, a C++ source defining the bytes of INPUT as NAME (an
# unsigned char array, NUL-terminated) and NAME##Size (its length without
# the NUL), for text that the command writes out as it is.
#   cmake -DINPUT=file -DOUTPUT=file.cpp -DNAME=kName -P embed.cmake
file(READ "${INPUT}" hex HEX)
string(LENGTH "${hex}" digits)
math(EXPR length "${digits} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)"
       "\\1\n" bytes "${bytes}")
file(WRITE "${OUTPUT}.tmp"
  "// Made from ${INPUT} by cmake/embed.cmake.\n#include <cstddef>\n\n"
  "extern const unsigned char ${NAME}[] = {\n${bytes}0};\n"
  "extern const std::size_t ${NAME}Size = ${length};\n")
file(RENAME "${OUTPUT}.tmp" "${OUTPUT}")
