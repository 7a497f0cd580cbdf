# Puts a jsoncpp that is compiled like the rest in the place of the installed one: a fuzzer that sees
# into the parser finds its way through it. scripts/fuzz has fetched the source of the very version
# that is installed, so the installed headers fit.
set(KELOTLS_JSONCPP_SOURCE ${CMAKE_BINARY_DIR}/jsoncpp CACHE PATH "the source of jsoncpp")

add_library(jsoncpp_instrumented SHARED
  ${KELOTLS_JSONCPP_SOURCE}/src/lib_json/json_reader.cpp
  ${KELOTLS_JSONCPP_SOURCE}/src/lib_json/json_value.cpp
  ${KELOTLS_JSONCPP_SOURCE}/src/lib_json/json_writer.cpp)
target_include_directories(jsoncpp_instrumented PRIVATE ${KELOTLS_JSONCPP_SOURCE}/include)
set_target_properties(PkgConfig::JSONCPP PROPERTIES INTERFACE_LINK_LIBRARIES jsoncpp_instrumented)
