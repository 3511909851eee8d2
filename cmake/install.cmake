# Installation, the package files for find_package and pkg-config, and Debian packages.
#
# Headers keep their folders, so that <zel_utils/CommonUtil.h> finds "publicInc/ZelExport.h": both
# include/ and include/zel_utils/ are include directories.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zel_utils)

set_target_properties(zel_platform_headers PROPERTIES EXPORT_NAME platform_headers)
set_target_properties(zel_platform PROPERTIES EXPORT_NAME platform INSTALL_RPATH "$ORIGIN")
set_target_properties(zel_utils PROPERTIES EXPORT_NAME utils INSTALL_RPATH "$ORIGIN")
file(RELATIVE_PATH bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set_target_properties(zelctl PROPERTIES INSTALL_RPATH "$ORIGIN/${bin_to_lib}")

install(TARGETS zel_platform_headers EXPORT zel_utils
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(TARGETS zel_platform zel_utils EXPORT zel_utils
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zel_utils COMPONENT dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS zelctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
install(FILES ${PROJECT_SOURCE_DIR}/tools/zelctl/zel_utils.lnav.json
  DESTINATION ${CMAKE_INSTALL_DATADIR}/zel_utils COMPONENT runtime)
if(ZEL_SQLITE STREQUAL "bundled")
  install(FILES ${PROJECT_SOURCE_DIR}/build-deps/sqlite3mc/LICENSE
    DESTINATION ${CMAKE_INSTALL_DOCDIR} RENAME LICENSE.sqlite3mc COMPONENT runtime)
endif()

install(EXPORT zel_utils NAMESPACE zel:: FILE zel_utilsTargets.cmake DESTINATION ${config_dir}
  COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/zel_utilsConfig.cmake.in
  ${PROJECT_BINARY_DIR}/zel_utilsConfig.cmake INSTALL_DESTINATION ${config_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zel_utilsConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zel_utilsConfig.cmake
  ${PROJECT_BINARY_DIR}/zel_utilsConfigVersion.cmake
  DESTINATION ${config_dir} COMPONENT dev)

file(RELATIVE_PATH pc_to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(${CMAKE_CURRENT_LIST_DIR}/zel_utils.pc.in ${PROJECT_BINARY_DIR}/zel_utils.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zel_utils.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libzel-utils)
set(CPACK_PACKAGE_CONTACT "libzel_utils maintainers <maintainers@libzel-utils.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "utility library of a conferencing SDK")
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libzel-utils1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libzel-utils-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libzel-utils1 (= ${PROJECT_VERSION}), libjsoncpp-dev")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Shared libraries and the console zelctl.")
set(CPACK_COMPONENT_DEV_DESCRIPTION "Headers and files for CMake and pkg-config.")
include(CPack)
