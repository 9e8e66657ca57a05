# cmake -DFROM=<directory> -DTO=<source> -DHEADER=<header> -DNAMESPACE=<name> -DTYPE=<struct> -P Embed.cmake: writes a C++
# source with each file in FROM as an array, and with the list k<TYPE>s of their names and contents. The header declares
# TYPE.
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
file(WRITE ${TO} "#include \"${HEADER}\"

namespace ${NAMESPACE} {
namespace {
${contents}}  // namespace

extern const ${TYPE} k${TYPE}s[];
extern const unsigned kNumberOf${TYPE}s;
const ${TYPE} k${TYPE}s[] = {
${table}};
const unsigned kNumberOf${TYPE}s = ${count};

}  // namespace ${NAMESPACE}
")
