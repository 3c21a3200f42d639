# What `cmake --install` puts into a prefix: the library, what a host needs to build against it, and zonflow.
#
# Components  runtime (libzon.so.0), development (headers, zon.pc, the CMake package), zonflow.
# The prefix may be moved: nothing that is installed remembers it.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# A folder of their own, since one of the headers stands in platform/linux/.
set(zon_header_dir ${CMAKE_INSTALL_INCLUDEDIR}/zon)
set(zon_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zon)
set(zon_pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS zon EXPORT zon
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${zon_header_dir})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${zon_header_dir} COMPONENT development
  FILES_MATCHING PATTERN "*.h")

# find_package(zon) has nothing to find but the library itself.
install(EXPORT zon FILE zonConfig.cmake NAMESPACE zon:: DESTINATION ${zon_package_dir} COMPONENT development)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zonConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zonConfigVersion.cmake DESTINATION ${zon_package_dir} COMPONENT development)

# The way back from zon.pc to the prefix, unless the folders were given as absolute paths.
file(RELATIVE_PATH zon_pc_prefix /prefix/${zon_pkgconfig_dir} /prefix)
string(REGEX REPLACE "/$" "" zon_pc_prefix "\${pcfiledir}/${zon_pc_prefix}")
set(zon_pc_libdir "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
set(zon_pc_includedir "\${prefix}/${zon_header_dir}")
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
  set(zon_pc_prefix ${CMAKE_INSTALL_PREFIX})
  set(zon_pc_libdir ${CMAKE_INSTALL_LIBDIR})
endif()
if(IS_ABSOLUTE ${CMAKE_INSTALL_INCLUDEDIR})
  set(zon_pc_includedir ${zon_header_dir})
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/zon.pc.in ${PROJECT_BINARY_DIR}/zon.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zon.pc DESTINATION ${zon_pkgconfig_dir} COMPONENT development)

if(ZON_APPS)
  install(TARGETS zonflow DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT zonflow)
  file(RELATIVE_PATH zon_from_bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(zonflow PROPERTIES INSTALL_RPATH "$ORIGIN/${zon_from_bin_to_lib}")
endif()
