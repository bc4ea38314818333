# cmake --install: the shared library, the public headers, a CMake package
# (find_package(kestrova) gives kestrova::kestrova) and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS kestrova EXPORT kestrovaTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES le/le.h le/le_export.h le/le_tel.h le/le_tessera.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/le)
install(TARGETS le-bundle RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# The pinned runtime travels with the library, which finds it beside itself.
install(FILES ${LE_ORT_LIBRARY} DESTINATION ${CMAKE_INSTALL_LIBDIR})

install(EXPORT kestrovaTargets NAMESPACE kestrova::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kestrova)
configure_package_config_file(cmake/kestrovaConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/kestrovaConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kestrova)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/kestrovaConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kestrovaConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/kestrovaConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kestrova)

# The pkg-config file finds its prefix from where it lies, so the installed
# tree can be moved.
file(RELATIVE_PATH LE_PC_UP "/r/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/r")
configure_file(cmake/kestrova.pc.in ${CMAKE_CURRENT_BINARY_DIR}/kestrova.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kestrova.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
