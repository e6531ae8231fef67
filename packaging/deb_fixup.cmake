# Runs after CPack has built the .deb files (CPACK_POST_BUILD_SCRIPTS): marks
# the library and development packages Multi-Arch: same, and gives the library
# package the ldconfig trigger and a shlibs file (in place of any ldconfig
# maintainer scripts), which CPack 3.25 cannot write for a multiarch directory.
find_program(DPKG_DEB dpkg-deb REQUIRED)
foreach(deb IN LISTS CPACK_PACKAGE_FILES)
  get_filename_component(name ${deb} NAME)
  if(NOT name MATCHES "^(libvekr7|libvekr-dev)_")
    continue()
  endif()
  set(root ${CPACK_TOPLEVEL_DIRECTORY}/fixup/${name})
  file(REMOVE_RECURSE ${root})
  file(MAKE_DIRECTORY ${CPACK_TOPLEVEL_DIRECTORY}/fixup)
  execute_process(COMMAND ${DPKG_DEB} -R ${deb} ${root} COMMAND_ERROR_IS_FATAL ANY)
  file(READ ${root}/DEBIAN/control control)
  string(REGEX REPLACE "\nMulti-Arch: [^\n]*" "" control "${control}")
  string(REGEX REPLACE "(^|\n)(Architecture: [^\n]*\n)" "\\1\\2Multi-Arch: same\n" control "${control}")
  file(WRITE ${root}/DEBIAN/control "${control}")
  if(name MATCHES "^libvekr7_([^_]*)_")
    file(REMOVE ${root}/DEBIAN/postinst ${root}/DEBIAN/postrm)
    file(WRITE ${root}/DEBIAN/triggers "activate-noawait ldconfig\n")
    string(REGEX REPLACE "-[^-]*$" "" upstream "${CMAKE_MATCH_1}")
    file(WRITE ${root}/DEBIAN/shlibs
      "libvekr 7 libvekr7 (>= ${upstream})\nlibvekcore 7 libvekr7 (>= ${upstream})\n")
  endif()
  execute_process(COMMAND ${DPKG_DEB} --root-owner-group -Zxz --build ${root} ${deb}
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${root})
endforeach()
