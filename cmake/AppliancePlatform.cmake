# The two platform libraries as the sysroot holds them. Their headers are ours: what the library
# relies on, and nothing else.

foreach(library IN ITEMS kelocore kelomustache)
  find_library(${library}_LIBRARY NAMES lib${library}.so.7 ${library} REQUIRED)
  add_library(${library} SHARED IMPORTED)
  set_target_properties(${library} PROPERTIES
    IMPORTED_LOCATION ${${library}_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${CMAKE_CURRENT_SOURCE_DIR}/platform/include)
endforeach()
