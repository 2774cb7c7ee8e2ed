# The system libraries, and how a library of this project is made from its folder.

find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(OpenSSL REQUIRED COMPONENTS Crypto SSL)
find_package(LibXml2 REQUIRED)
pkg_check_modules(JSONC REQUIRED IMPORTED_TARGET json-c)
pkg_check_modules(UUID REQUIRED IMPORTED_TARGET uuid)
pkg_check_modules(CK REQUIRED IMPORTED_TARGET ck)
pkg_check_modules(XXHASH REQUIRED IMPORTED_TARGET libxxhash)
pkg_check_modules(LZ4 REQUIRED IMPORTED_TARGET liblz4)
pkg_check_modules(CURL REQUIRED IMPORTED_TARGET libcurl)
# Headers only, in the compiler's own search path: asked by compiling, because the CMake package that would be found
# is the distribution's default version, which is too old.
include(CheckCXXSourceCompiles)
check_cxx_source_compiles("#include <boost/version.hpp>
  static_assert(BOOST_VERSION >= 108100, \"\");
  int main() { return 0; }" ORLITH_BOOST_IS_NEW_ENOUGH)
if(NOT ORLITH_BOOST_IS_NEW_ENOUGH)
  unset(ORLITH_BOOST_IS_NEW_ENOUGH CACHE)  # the next run asks again
  message(FATAL_ERROR "Boost 1.81 or later is missing: script/bootstrap installs it (libboost1.81-dev)")
endif()

# orlith_library(NAME SOURCES ... PUBLIC ... PRIVATE ...)
# The objects are compiled once, position independent, and make two libraries: the shared NAME with a
# versioned soname, and the archive NAME_static, which the tests and the tool link: the tests so that they can
# reach internals and wrap system calls at link time, the tool so that it runs from any folder.
function(orlith_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;PUBLIC;PRIVATE" ${ARGN})
  add_library(${name}_objects OBJECT ${ARG_SOURCES})
  target_include_directories(${name}_objects PUBLIC ${PROJECT_SOURCE_DIR})
  add_library(${name} SHARED)
  add_library(${name}_static STATIC)
  set_target_properties(${name} PROPERTIES OUTPUT_NAME ${name} EXPORT_NAME ${name}
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  target_link_options(${name} PRIVATE -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/exports.map)
  set_target_properties(${name} PROPERTIES LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/exports.map)
  set_target_properties(${name}_static PROPERTIES OUTPUT_NAME ${name} EXPORT_NAME ${name}_static)
  if(name MATCHES "^lib")  # liborlith, not libliborlith
    set_target_properties(${name} ${name}_static PROPERTIES PREFIX "")
  endif()
  foreach(kind ${name} ${name}_static)
    target_sources(${kind} PRIVATE $<TARGET_OBJECTS:${name}_objects>)
    target_include_directories(${kind} PUBLIC
      $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    target_link_libraries(${kind} PRIVATE ${ARG_PRIVATE} Threads::Threads)
  endforeach()
  foreach(dep ${ARG_PUBLIC})
    target_link_libraries(${name} PUBLIC ${dep})
    target_link_libraries(${name}_static PUBLIC ${dep}_static)
  endforeach()
  target_link_libraries(${name}_objects PRIVATE ${ARG_PRIVATE} Threads::Threads)
endfunction()
