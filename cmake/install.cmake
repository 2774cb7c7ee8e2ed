# What `cmake --install` lays down: the libraries, the public headers under their own folders, the programs,
# pkg-config files and a CMake package.
#   find_package(liborlith) gives liborlith::liborlith, liborlith::ruxo, liborlith::pobe and liborlith::vaskllhist; the
#   archives are liborlith::liborlith_static and so on.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/liborlith)

install(TARGETS liborlith ruxo pobe vaskllhist EXPORT liborlithTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS liborlith_static ruxo_static pobe_static vaskllhist_static EXPORT liborlithStaticTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS orlith orlithd RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# Headers that only a folder needs stay out.
install(DIRECTORY liborlith ruxo pobe vaskllhist DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h"
  PATTERN "*_private.h" EXCLUDE
  PATTERN "*_internal.h" EXCLUDE
  PATTERN "liborlith_fatal.h" EXCLUDE
  PATTERN "liborlith_module.h" EXCLUDE)

install(EXPORT liborlithTargets NAMESPACE liborlith:: DESTINATION ${package_dir})
install(EXPORT liborlithStaticTargets NAMESPACE liborlith:: DESTINATION ${package_dir})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/liborlithConfig.cmake.in
  ${CMAKE_BINARY_DIR}/liborlithConfig.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/liborlithConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/liborlithConfig.cmake ${CMAKE_BINARY_DIR}/liborlithConfigVersion.cmake
  DESTINATION ${package_dir})

# A relocatable pkg-config file: the prefix is found from where the file lies.
function(orlith_pkgconfig name description requires requires_private)
  set(PC_NAME ${name})
  set(PC_LIB ${name})
  string(REGEX REPLACE "^lib" "" PC_LIB ${name})
  set(PC_DESCRIPTION ${description})
  set(PC_REQUIRES ${requires})
  set(PC_REQUIRES_PRIVATE ${requires_private})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/library.pc.in ${CMAKE_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
orlith_pkgconfig(ruxo "application framework of liborlith" ""
  "json-c uuid ck libxxhash liblz4 libxml-2.0 libcurl libssl libcrypto")
orlith_pkgconfig(pobe "metric names with tags" "" "")
orlith_pkgconfig(vaskllhist "log-linear histograms" "" "")
orlith_pkgconfig(liborlith "what every node of a time-series cluster agrees on" "ruxo pobe vaskllhist libxml-2.0 libcurl"
  "ck libcrypto")
