# Turns the files of console/web into one C++ header of byte arrays, so the program serves
# its pages from itself and needs no files beside it.
#   cmake -DSRC_DIR=<console/web> -DOUT=<header> -P embed_web.cmake
file(GLOB files RELATIVE ${SRC_DIR} ${SRC_DIR}/*)
list(SORT files)
set(body "")
set(table "")
set(index 0)
foreach(f IN LISTS files)
  if(IS_DIRECTORY ${SRC_DIR}/${f})
    continue()
  endif()
  file(READ ${SRC_DIR}/${f} hex HEX)
  string(LENGTH "${hex}" hex_length)
  math(EXPR size "${hex_length} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${hex}")
  string(APPEND body "inline constexpr char kFile${index}[] = {${bytes} 0};\n")
  string(APPEND table "    {\"/${f}\", std::string_view(kFile${index}, ${size})},\n")
  math(EXPR index "${index} + 1")
endforeach()
file(WRITE ${OUT}.tmp
"// Made from console/web by console/embed_web.cmake at build time; not to be edited.
#pragma once

#include <string_view>

namespace qx::console_web {

struct File {
  std::string_view path;
  std::string_view data;
};

${body}
inline constexpr File kFiles[] = {
${table}};

}  // namespace qx::console_web
")
file(COPY_FILE ${OUT}.tmp ${OUT} ONLY_IF_DIFFERENT)
file(REMOVE ${OUT}.tmp)
