# Writes OUTPUT, a C++ source with the files of WEB as byte arrays (panel/assets.h).
# cmake -DWEB=... -DOUTPUT=... -P embed.cmake
set(types html text/html css text/css js text/javascript svg image/svg+xml)
file(GLOB files RELATIVE ${WEB} ${WEB}/*)
list(SORT files)
set(arrays "")
set(rows "")
set(number 0)
foreach(name ${files})
  string(REGEX REPLACE ".*\\." "" extension ${name})
  list(FIND types ${extension} at)
  if(at LESS 0)
    message(FATAL_ERROR "${name}: no content type is known for it")
  endif()
  math(EXPR at "${at} + 1")
  list(GET types ${at} type)
  if(type MATCHES "^text/")
    string(APPEND type "; charset=utf-8")
  endif()
  set(path "/assets/${name}")
  if(name STREQUAL "index.html")
    set(path "/")
  endif()
  file(READ ${WEB}/${name} bytes HEX)
  file(SHA256 ${WEB}/${name} sum)
  string(SUBSTRING ${sum} 0 32 sum)
  string(REGEX REPLACE "(..)" "0x\\1," bytes "${bytes}")
  string(APPEND arrays "const unsigned char k${number}[] = {${bytes}};\n")
  string(APPEND rows "    {\"${path}\", \"${type}\", \"\\\"${sum}\\\"\", k${number}, sizeof(k${number})},\n")
  math(EXPR number "${number} + 1")
endforeach()
file(WRITE ${OUTPUT} "#include \"panel/assets.h\"

namespace panel {
namespace {
${arrays}}  // namespace

const Asset kAssets[] = {
${rows}};
const std::size_t kAssetCount = ${number};

}  // namespace panel
")
