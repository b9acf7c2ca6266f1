# Makes the C++ source file that holds the live page's files byte for byte: cmake -D OUTPUT=file.cpp -D "FILES=a;b" -P EmbedFiles.cmake
set(arrays "")
set(entries "")
set(number 0)
foreach(file IN LISTS FILES)
  get_filename_component(name "${file}" NAME)
  file(READ "${file}" digits HEX)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${digits}")
  string(APPEND arrays "constexpr unsigned char kFile${number}[] = {${bytes}};\n")
  string(APPEND entries "    PageFile{\"${name}\", {reinterpret_cast<const char*>(kFile${number}), sizeof(kFile${number})}},\n")
  math(EXPR number "${number} + 1")
endforeach()

file(WRITE "${OUTPUT}" "// Made by the build of the files of the live page.
#include \"devserver/PageFiles.h\"

namespace devserver {
namespace {

${arrays}
const PageFile kFiles[] = {
${entries}};

}  // namespace

std::span<const PageFile> pageFiles() { return kFiles; }

}  // namespace devserver
")
