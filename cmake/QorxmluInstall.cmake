# Install rules and the CMake package: find_package(qorxmlu CONFIG REQUIRED) -> qorxmlu::qorxmlu.
include(CMakePackageConfigHelpers)
set(QORXMLU_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/qorxmlu)

install(TARGETS qorxmlu EXPORT qorxmluTargets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/qorxmlu DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT qorxmluTargets NAMESPACE qorxmlu:: DESTINATION ${QORXMLU_CMAKE_DIR})

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/qorxmluConfig.cmake.in
  ${PROJECT_BINARY_DIR}/qorxmluConfig.cmake INSTALL_DESTINATION ${QORXMLU_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qorxmluConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qorxmluConfig.cmake ${PROJECT_BINARY_DIR}/qorxmluConfigVersion.cmake
  DESTINATION ${QORXMLU_CMAKE_DIR})
export(EXPORT qorxmluTargets NAMESPACE qorxmlu:: FILE ${PROJECT_BINARY_DIR}/qorxmluTargets.cmake)

configure_file(${PROJECT_SOURCE_DIR}/cmake/qorxmlu.pc.in ${PROJECT_BINARY_DIR}/qorxmlu.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qorxmlu.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Packages: `cpack -G DEB` on Linux (installs under /usr), a ZIP of the install tree on Windows.
set(CPACK_PACKAGE_NAME qorxmlu)
set(CPACK_PACKAGE_VENDOR "qorxmlu developers")
set(CPACK_PACKAGE_CONTACT "qorxmlu developers <qorxmlu@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "XML documents in a line-oriented dialect, a WinInet-based HTTP form client, queued queries and tracing")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_RESOURCE_FILE_README ${PROJECT_SOURCE_DIR}/README.md)
if(WIN32)
  set(CPACK_GENERATOR ZIP)
else()
  set(CPACK_GENERATOR DEB)
  set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
  # The library loads libqorinet, which needs libcurl: dpkg-shlibdeps finds that from the binaries.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
include(CPack)
