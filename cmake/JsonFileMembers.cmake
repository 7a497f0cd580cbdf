# Gives the library's own units a copy of jsoncpp's headers in which Json::Value has the two
# whole-file operations as members. Callers use the stock headers; the members are not exported.
#
# Sets KELOTLS_JSON_INCLUDE_DIR, the directory to put before jsoncpp's own.

find_path(JSONCPP_HEADER_DIR json/value.h HINTS ${JSONCPP_INCLUDE_DIRS} REQUIRED)
set(KELOTLS_JSON_INCLUDE_DIR ${CMAKE_CURRENT_BINARY_DIR}/json_with_file_members)

file(COPY ${JSONCPP_HEADER_DIR}/json DESTINATION ${KELOTLS_JSON_INCLUDE_DIR}
     PATTERN value.h EXCLUDE)
file(READ ${JSONCPP_HEADER_DIR}/json/value.h value_header)

set(place "  String toStyledString() const;\n")
string(REPLACE "${place}" "" without_place "${value_header}")
string(LENGTH "${place}" place_length)
string(LENGTH "${value_header}" length)
string(LENGTH "${without_place}" length_without_place)
math(EXPR expected_length "${length} - ${place_length}")
if(NOT length_without_place EQUAL expected_length)
  message(FATAL_ERROR
    "${JSONCPP_HEADER_DIR}/json/value.h does not hold exactly one line\n${place}"
    "behind which the whole-file operations of Json::Value are declared. "
    "This jsoncpp is not one that the library is known to work with (1.9.4, 1.9.5).")
endif()

string(REPLACE "${place}" "${place}
  /// Reads the regular file at path as one strict JSON document into this value. False on any
  /// failure: errno is that of the call that failed, 0 for a parse error. The value is then as it
  /// was.
  bool fromFile(const String& path);

  /// Writes this value as JSON text to path. Replaces the file atomically and durably, keeping its
  /// mode and owner; in_place truncates and rewrites it instead. False with errno on failure.
  bool toFile(const String& path, bool in_place = false) const;
" value_header "${value_header}")
set(written_header "")
if(EXISTS ${KELOTLS_JSON_INCLUDE_DIR}/json/value.h)
  file(READ ${KELOTLS_JSON_INCLUDE_DIR}/json/value.h written_header)
endif()
if(NOT written_header STREQUAL value_header)  # or every configuration would rebuild everything
  file(WRITE ${KELOTLS_JSON_INCLUDE_DIR}/json/value.h "${value_header}")
endif()
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${JSONCPP_HEADER_DIR}/json/value.h)
