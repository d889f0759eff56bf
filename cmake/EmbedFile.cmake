# Turns a binary file into a C++ source defining an array of its bytes and its length.
# Usage: cmake -DINPUT=file -DOUTPUT=file.cpp -DSYMBOL=name -P EmbedFile.cmake
file(READ "${INPUT}" content HEX)
string(LENGTH "${content}" hex_length)
math(EXPR byte_count "${hex_length} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${content}")
string(REGEX REPLACE "((0x[0-9a-f][0-9a-f],){16})" "\\1\n  " bytes "${bytes}")
file(WRITE "${OUTPUT}.tmp"
  "// Generated from ${INPUT}; do not edit.\n"
  "#include <stddef.h>\n\n"
  "extern const unsigned char ${SYMBOL}[] = {\n  ${bytes}\n};\n"
  "extern const size_t ${SYMBOL}_length = ${byte_count};\n")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
