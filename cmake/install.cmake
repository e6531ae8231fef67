# Installation: the shared objects (component runtime), the headers, the CMake
# package, the pkg-config files and the HTML reference (component dev), and the
# demo programs (component tools). Everything is placed relative to the install
# prefix, so an installed tree can be moved as a whole.
include(CMakePackageConfigHelpers)

set(VEKR_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vekr)
set(VEKR_DOC_DIR ${CMAKE_INSTALL_DATAROOTDIR}/doc)

# Debian wants shared objects 0644; the development symlinks go with the headers.
install(TARGETS vekcore vekr EXPORT vekrTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
install(FILES include/vekr.h include/vekcore.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

install(EXPORT vekrTargets NAMESPACE vekr:: DESTINATION ${VEKR_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(cmake/vekrConfig.cmake.in ${PROJECT_BINARY_DIR}/pkg/vekrConfig.cmake
  INSTALL_DESTINATION ${VEKR_CMAKE_DIR})
# Same major version: 7.x serves every request for 7.y with y <= x. The file
# also refuses a build for another pointer size (an i386 tree to an x86-64
# consumer and the reverse).
write_basic_package_version_file(${PROJECT_BINARY_DIR}/pkg/vekrConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/pkg/vekrConfig.cmake ${PROJECT_BINARY_DIR}/pkg/vekrConfigVersion.cmake
  DESTINATION ${VEKR_CMAKE_DIR} COMPONENT dev)

# pkg-config files find the prefix from their own place (${pcfiledir}), so
# they stay right when the tree moves.
file(RELATIVE_PATH VEKR_PC_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
string(REGEX REPLACE "/$" "" VEKR_PC_PREFIX "${VEKR_PC_PREFIX}")
foreach(pc vekr vekcore)
  configure_file(cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/pkg/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/pkg/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endforeach()

# Each Debian package carries the licence and a changelog in its own doc
# directory (byte-identical across architectures, as Multi-Arch: same needs).
execute_process(COMMAND gzip -9nc ${PROJECT_SOURCE_DIR}/packaging/changelog
  OUTPUT_FILE ${PROJECT_BINARY_DIR}/pkg/changelog.Debian.gz)
set(doc_pkgs libvekr7:runtime libvekr-dev:dev vekr-tools:tools)
if(VEKR_BUILD_PYTHON)
  list(APPEND doc_pkgs python3-vekr:python)
endif()
foreach(pair ${doc_pkgs})
  string(REPLACE ":" ";" pair ${pair})
  list(GET pair 0 pkg)
  list(GET pair 1 comp)
  install(FILES packaging/copyright ${PROJECT_BINARY_DIR}/pkg/changelog.Debian.gz
    DESTINATION ${VEKR_DOC_DIR}/${pkg} COMPONENT ${comp})
endforeach()

if(VEKR_BUILD_DOCS)
  install(DIRECTORY ${PROJECT_BINARY_DIR}/docs/html/ DESTINATION ${VEKR_DOC_DIR}/libvekr-dev/html COMPONENT dev)
endif()

if(VEKR_BUILD_EXAMPLES)
  install(TARGETS vekr-demo RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  if(TARGET vekr-render)
    install(TARGETS vekr-render RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  endif()
  if(TARGET vekr-render-mpi)
    install(TARGETS vekr-render-mpi RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  endif()
endif()
