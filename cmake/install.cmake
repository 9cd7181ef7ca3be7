# SPDX-License-Identifier: Apache-2.0
# What is installed and packaged: the library, its public headers, and what CMake and pkg-config need
# to find them. The installed tree is relocatable: no file contains its path.
include(CMakePackageConfigHelpers)
include(GNUInstallDirs)
set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/engines_http)

install(TARGETS engines_http EXPORT engines_http-targets FILE_SET HEADERS)
install(EXPORT engines_http-targets NAMESPACE engines:: DESTINATION ${config_dir})

get_target_property(type engines_http TYPE)
if(type STREQUAL "SHARED_LIBRARY")
  set(engines_http_find_for_users engines_http_find_for_headers)
  set(engines_http_pc_definition " -DENGINES_HTTP_SHARED")
else()
  set(engines_http_find_for_users engines_http_find_all)
endif()
configure_package_config_file(
  cmake/engines_http-config.cmake.in engines_http-config.cmake
  INSTALL_DESTINATION ${config_dir} NO_SET_AND_CHECK_MACRO NO_CHECK_REQUIRED_COMPONENTS_MACRO)
# Until version 1, a minor version may break callers.
write_basic_package_version_file(engines_http-config-version.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/engines_http-config.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/engines_http-config-version.cmake
              cmake/dependencies.cmake packages.txt DESTINATION ${config_dir})

file(RELATIVE_PATH engines_http_pc_to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/engines_http.pc.in engines_http.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/engines_http.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})

# The Debian package: cmake --workflow --preset package
if(PROJECT_IS_TOP_LEVEL)
  set(CPACK_GENERATOR DEB)
  set(CPACK_PACKAGE_NAME libengines-http-dev)
  set(CPACK_PACKAGE_CONTACT "The authors of engines_http")
  set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
  set(CPACK_STRIP_FILES ON)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
  set(needed nlohmann_json)
  if(type STREQUAL "STATIC_LIBRARY")
    list(APPEND needed CURL ICU OpenSSL PCRE2 ZLIB fmt spdlog)
  endif()
  list(JOIN needed "|" needed)
  file(STRINGS packages.txt packages REGEX "# (${needed})$")
  list(TRANSFORM packages REPLACE " .*" "")
  list(JOIN packages ", " CPACK_DEBIAN_PACKAGE_DEPENDS)
  install(FILES cmake/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_PACKAGE_NAME})
  include(CPack)
endif()
