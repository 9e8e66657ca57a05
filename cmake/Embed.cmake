# cmake -DFROM=<directory> -DTO=<source> -P Embed.cmake: writes a C++ source with each file in FROM as an array.
# kelvo-collector/http/Page.h declares the arrays.
file(GLOB files RELATIVE ${FROM} ${FROM}/*)
list(SORT files)
set(contents "")
set(table "")
set(count 0)
foreach(file IN LISTS files)
  file(READ ${FROM}/${file} hex HEX)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
  # The 0 at the end is needed for empty files, because C++ has no empty arrays.
  string(APPEND contents "constexpr unsigned char kFile${count}[] = {${bytes}0};\n")
  string(APPEND table "    {\"${file}\", {reinterpret_cast<const char*>(kFile${count}), sizeof kFile${count} - 1}},\n")
  math(EXPR count "${count} + 1")
endforeach()
file(WRITE ${TO} "#include \"kelvo-collector/http/Page.h\"

namespace kelvo::collector {
namespace {
${contents}}  // namespace

extern const PageFile kPageFiles[];
extern const unsigned kNumberOfPageFiles;
const PageFile kPageFiles[] = {
${table}};
const unsigned kNumberOfPageFiles = ${count};

}  // namespace kelvo::collector
")
