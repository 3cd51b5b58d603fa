# Script mode: writes OUTPUT, a C++ file defining quill::resources::IDENT() over INPUT's bytes.
file(READ ${INPUT} content)
if(INPUT MATCHES "\\.yaml$")
  string(REPLACE "\r\n" "\n" content "${content}")
  string(REPLACE "\n" "\r\n" content "${content}")
  file(WRITE ${OUTPUT}.raw "${content}")
  file(READ ${OUTPUT}.raw hex HEX)
  file(REMOVE ${OUTPUT}.raw)
else()
  file(READ ${INPUT} hex HEX)
endif()
string(LENGTH "${hex}" hex_len)
math(EXPR size "${hex_len} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${hex}")
file(WRITE ${OUTPUT} "// Generated from ${INPUT}; do not edit.\n#include <string_view>\n"
  "namespace quill::resources {\nnamespace { const char data[${size} + 1] = {${bytes}'\\0'}; }\n"
  "std::string_view ${IDENT}() { return {data, ${size}}; }\n}\n")
