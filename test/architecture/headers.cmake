# Every public header compiles alone, as C11 and as C++17: one source file each is generated and compiled with
# warnings as errors. A header that needs another one first, or uses a newer language, breaks the build here.
file(GLOB_RECURSE headers RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/ruxo/*.h ${PROJECT_SOURCE_DIR}/pobe/*.h
  ${PROJECT_SOURCE_DIR}/vaskllhist/*.h ${PROJECT_SOURCE_DIR}/liborlith/*.h)
list(FILTER headers EXCLUDE REGEX "_private\\.h$|_internal\\.h$|liborlith_(fatal|module)\\.h$")

set(c_sources)
set(cpp_sources)
foreach(header ${headers})
  string(MAKE_C_IDENTIFIER ${header} id)
  foreach(language c cpp)
    set(source ${CMAKE_CURRENT_BINARY_DIR}/headers/${id}.${language})
    file(CONFIGURE OUTPUT ${source} CONTENT "#include \"@header@\"\ntypedef int ${id}_is_not_empty;\n" @ONLY)
    list(APPEND ${language}_sources ${source})
  endforeach()
endforeach()

add_library(headers_as_c11 OBJECT ${c_sources})
set_target_properties(headers_as_c11 PROPERTIES C_STANDARD 11 C_EXTENSIONS OFF)
add_library(headers_as_cpp17 OBJECT ${cpp_sources})
set_target_properties(headers_as_cpp17 PROPERTIES CXX_STANDARD 17)
foreach(target headers_as_c11 headers_as_cpp17)
  target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR} ${LIBXML2_INCLUDE_DIRS})
  target_compile_options(${target} PRIVATE -Werror)
endforeach()
