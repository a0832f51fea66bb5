# cmake -DINPUT=<file> -DOUTPUT=<cpp> -DSYMBOL=<name> -P EmbedBinary.cmake
# Writes the bytes of INPUT as a C++ array `SYMBOL` and its size `SYMBOL_size`; with no INPUT,
# an empty image.
set(bytes "")
set(size 0)
if(INPUT)
  file(READ ${INPUT} hex HEX)
  string(LENGTH "${hex}" hex_length)
  math(EXPR size "${hex_length} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
  string(REGEX REPLACE "((0x..,){24})" "\\1\n  " bytes "${bytes}")
endif()
file(WRITE ${OUTPUT}.tmp
  "// Generated from ${INPUT}; do not edit.\n#include <cstddef>\n\n"
  "extern const unsigned char ${SYMBOL}[] = {\n  ${bytes}0};\n"
  "extern const size_t ${SYMBOL}_size = ${size};\n")
file(COPY_FILE ${OUTPUT}.tmp ${OUTPUT} ONLY_IF_DIFFERENT)
