# Script mode: turns the JSON file IN into a C++ source OUT that places its bytes,
# NUL-terminated, in the section ".bundle.manifest".
file(READ ${IN} content HEX)
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${content}")
file(WRITE ${OUT}
"// Generated from ${IN}; do not edit.\n"
"__attribute__((section(\".bundle.manifest\"), used))\n"
"static const unsigned char bundle_manifest[] = {${bytes} 0x00};\n")
