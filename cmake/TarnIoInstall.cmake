# Installs the library, its headers, a CMake package (find_package(TarnIo) gives
# TarnIo::tarnio) and a pkg-config file.
include(CMakePackageConfigHelpers)

set(TARNIO_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/TarnIo)

install(TARGETS tarnio EXPORT TarnIoTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# Generated into the build tree, which may lie inside the source tree: not part of the file set.
install(FILES ${PROJECT_BINARY_DIR}/generated/tarnio/version.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tarnio)
install(FILES ${PROJECT_BINARY_DIR}/generated/tarnio/ome/element_members.h
              ${PROJECT_BINARY_DIR}/generated/tarnio/ome/element_classes.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tarnio/ome)
install(EXPORT TarnIoTargets NAMESPACE TarnIo:: DESTINATION ${TARNIO_CMAKE_DIR})

configure_package_config_file(cmake/TarnIoConfig.cmake.in
  ${PROJECT_BINARY_DIR}/TarnIoConfig.cmake INSTALL_DESTINATION ${TARNIO_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TarnIoConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TarnIoConfig.cmake
              ${PROJECT_BINARY_DIR}/TarnIoConfigVersion.cmake
        DESTINATION ${TARNIO_CMAKE_DIR})

# Relative to the file itself, so that the installed tree can be moved.
file(RELATIVE_PATH TARNIO_PC_TO_PREFIX /root/${CMAKE_INSTALL_LIBDIR}/pkgconfig /root)
configure_file(cmake/tarnio.pc.in ${PROJECT_BINARY_DIR}/tarnio.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tarnio.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
