# Runs after CPack has built the .deb files (CPACK_POST_BUILD_SCRIPTS): marks
# the library and development packages Multi-Arch: same and replaces the
# ldconfig maintainer scripts that CPack writes with the ldconfig trigger.
find_program(DPKG_DEB dpkg-deb REQUIRED)
foreach(deb IN LISTS CPACK_PACKAGE_FILES)
  get_filename_component(name ${deb} NAME)
  if(NOT name MATCHES "^(libvekr7|libvekr-dev)_")
    continue()
  endif()
  set(root ${CPACK_TOPLEVEL_DIRECTORY}/fixup/${name})
  file(REMOVE_RECURSE ${root})
  execute_process(COMMAND ${DPKG_DEB} -R ${deb} ${root} COMMAND_ERROR_IS_FATAL ANY)
  file(READ ${root}/DEBIAN/control control)
  string(REGEX REPLACE "\nMulti-Arch: [^\n]*" "" control "${control}")
  string(REPLACE "\nArchitecture:" "\nMulti-Arch: same\nArchitecture:" control "${control}")
  file(WRITE ${root}/DEBIAN/control "${control}")
  if(EXISTS ${root}/DEBIAN/postinst)
    file(REMOVE ${root}/DEBIAN/postinst ${root}/DEBIAN/postrm)
    file(WRITE ${root}/DEBIAN/triggers "activate-noawait ldconfig\n")
  endif()
  execute_process(COMMAND ${DPKG_DEB} --root-owner-group -Zxz --build ${root} ${deb}
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${root})
endforeach()
