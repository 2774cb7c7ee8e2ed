# Options every target of this project is compiled with.

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM)
  # Relative to the source folder, so that every clone on a machine shares one cache.
  set(CMAKE_C_COMPILER_LAUNCHER
    ${CMAKE_COMMAND} -E env CCACHE_BASEDIR=${CMAKE_SOURCE_DIR} CCACHE_NOHASHDIR=1 ${CCACHE_PROGRAM})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_C_COMPILER_LAUNCHER})
endif()

set(CMAKE_CXX_FLAGS_RELEASE "-O2 -g1 -DNDEBUG")
set(CMAKE_C_FLAGS_RELEASE "-O2 -g1 -DNDEBUG")
set(CMAKE_CXX_FLAGS_DEBUG "-O1 -g1 -fno-omit-frame-pointer")
set(CMAKE_C_FLAGS_DEBUG "-O1 -g1 -fno-omit-frame-pointer")

file(RELATIVE_PATH source_from_build ${CMAKE_BINARY_DIR} ${CMAKE_SOURCE_DIR})
string(REGEX REPLACE "/$" "" source_from_build "${source_from_build}")
add_compile_options(
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow
  # Floating point is part of the stored formats: every build must round the same way.
  -ffp-contract=off
  # Fatal lines and log lines name sources relative to their library's folder, not the builder's disk.
  # The last matching map wins, so the general one comes first. The compiler cache rewrites the sources' paths
  # relative to the build folder, so both forms are mapped.
  "-fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=" "-fmacro-prefix-map=${CMAKE_SOURCE_DIR}/liborlith/="
  "-fmacro-prefix-map=${source_from_build}/=" "-fmacro-prefix-map=${source_from_build}/liborlith/=")

if(ORLITH_SANITIZE)
  add_compile_options(-fsanitize=${ORLITH_SANITIZE} -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${ORLITH_SANITIZE})
endif()
if(ORLITH_COVERAGE)
  add_compile_options(--coverage)
  add_link_options(--coverage)
endif()
if(ORLITH_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
