# Debian packages with CPack (cpack -G DEB in a build directory):
#   libvekr7     the two shared objects (Multi-Arch: same, so the amd64 and
#                i386 packages install side by side)
#   libvekr-dev  headers, development symlinks, CMake package, pkg-config
#                files, HTML reference (Multi-Arch: same as well)
#   vekr-tools   the demo programs vekr-render (vekr-render-mpi) and vekr-demo
#   python3-vekr the Python module (x86-64 builds with VEKR_BUILD_PYTHON)
# The architecture follows the build: i386 with cmake/i386.cmake, else amd64.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vekr)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "vekr maintainers <maintainers@vekr.invalid>")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
if(VEKR_BUILD_PYTHON)
  list(APPEND CPACK_COMPONENTS_ALL python)
endif()
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
# Installed binaries are stripped, as Debian ships them.
set(CPACK_STRIP_FILES ON)
if(VEKR_TARGET_I386)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386)
else()
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
endif()
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

# Run-time needs of the shared objects, the same on both architectures (what
# dpkg-shlibdeps reports for the amd64 build: glibc 2.14 symbols, GOMP_4.0,
# the C++ runtime). Stated by hand because dpkg-shlibdeps cannot resolve the
# -m32 build's libraries, which come from the biarch packages.
set(VEKR_DEB_RUNTIME_DEPENDS "libc6 (>= 2.14), libgcc-s1 (>= 3.0), libgomp1 (>= 6), libstdc++6 (>= 5.2)")
set(VEKR_DEB_VERSION "${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libvekr7)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${VEKR_DEB_RUNTIME_DEPENDS}")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "realistic-rendering primitives (shared libraries)
vekr is a library of realistic-rendering primitives with a C interface:
KD-tree ray tracing of triangle scenes on ray packets, shading arithmetic
with masks, spherical harmonics up to order 15, and resize, remap, affine
warp and 3-D convolution of voxel volumes.

This package contains the shared libraries libvekr and libvekcore.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libvekr-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libvekr7 (= ${VEKR_DEB_VERSION})")
set(CPACK_COMPONENT_DEV_DESCRIPTION "realistic-rendering primitives (development files)
vekr is a library of realistic-rendering primitives with a C interface:
KD-tree ray tracing of triangle scenes on ray packets, shading arithmetic
with masks, spherical harmonics up to order 15, and resize, remap, affine
warp and 3-D convolution of voxel volumes.

This package contains the C headers with the API reference (also as HTML),
the CMake package (find_package(vekr)) and the pkg-config files.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME vekr-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION graphics)
# The renderer reads meshes through assimp and renders across MPI ranks where
# the build found them (the x86-64 build; the i386 one uses its own readers).
set(VEKR_DEB_TOOLS_DEPENDS "libvekr7 (= ${VEKR_DEB_VERSION}), ${VEKR_DEB_RUNTIME_DEPENDS}")
if(VEKR_RENDER_ASSIMP)
  string(APPEND VEKR_DEB_TOOLS_DEPENDS ", libassimp5")
endif()
if(VEKR_RENDER_MPI)
  string(APPEND VEKR_DEB_TOOLS_DEPENDS ", libopenmpi3, openmpi-bin")
endif()
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${VEKR_DEB_TOOLS_DEPENDS}")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "realistic-rendering primitives (demo programs)
vekr is a library of realistic-rendering primitives with a C interface.

This package contains vekr-render, a ray tracer of triangle meshes built
on the library's public interface (vekr-render-mpi spreads its frames over
the ranks of an MPI job), and vekr-demo, which prints the library's version
record and the scene box of a mesh.")

# CPack cannot write Multi-Arch, and it runs ldconfig from maintainer scripts
# where Debian uses a trigger; packaging/deb_fixup.cmake rewrites the control
# data of the built packages for both.
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/deb_fixup.cmake)
include(CPack)
