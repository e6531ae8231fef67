# vekr-render: the library's main job end to end, through the public header only.
include(CheckCXXSourceCompiles)

# assimp reads the mesh formats users have (OBJ, STL, PLY, 3DS, glTF, ...). A
# package found for another architecture (the x86-64 one under the i386
# toolchain) must not be used: a link test decides.
find_package(assimp CONFIG QUIET)
set(VEKR_RENDER_ASSIMP OFF)
if(assimp_FOUND AND TARGET assimp::assimp)
  set(CMAKE_REQUIRED_LIBRARIES assimp::assimp)
  check_cxx_source_compiles("#include <assimp/Importer.hpp>
    int main() { Assimp::Importer i; return i.GetErrorString() == nullptr; }" VEKR_RENDER_ASSIMP_LINKS)
  unset(CMAKE_REQUIRED_LIBRARIES)
  set(VEKR_RENDER_ASSIMP ${VEKR_RENDER_ASSIMP_LINKS})
endif()
message(STATUS "vekr-render: mesh formats through assimp: ${VEKR_RENDER_ASSIMP}")
# Seen by the tests and the packaging too (other directory scopes).
set(VEKR_RENDER_ASSIMP ${VEKR_RENDER_ASSIMP} CACHE INTERNAL "vekr-render reads meshes through assimp")

add_library(vekr_render_core STATIC render/mesh_io.cpp render/renderer.cpp)
target_include_directories(vekr_render_core PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/render)
target_link_libraries(vekr_render_core PUBLIC vekr vekcore OpenMP::OpenMP_CXX)
if(VEKR_RENDER_ASSIMP)
  target_compile_definitions(vekr_render_core PRIVATE VEKR_RENDER_ASSIMP)
  target_link_libraries(vekr_render_core PRIVATE assimp::assimp)
else()
  # tinyobjloader's implementation is compiled from its header; its warnings are not ours.
  set_source_files_properties(render/mesh_io.cpp PROPERTIES COMPILE_OPTIONS "-Wno-error")
endif()
add_executable(vekr-render render/main.cpp)
target_link_libraries(vekr-render PRIVATE vekr_render_core)
# vekr-render-mpi: the same renderer spread over the ranks of an Open MPI job.
# Optional: built where MPI for this architecture is found.
find_package(MPI QUIET COMPONENTS CXX)
set(VEKR_RENDER_MPI OFF)
if(MPI_CXX_FOUND)
  set(CMAKE_REQUIRED_LIBRARIES MPI::MPI_CXX)
  check_cxx_source_compiles("#include <mpi.h>
    int main(int c, char** v) { MPI_Init(&c, &v); return MPI_Finalize(); }" VEKR_RENDER_MPI_LINKS)
  unset(CMAKE_REQUIRED_LIBRARIES)
  set(VEKR_RENDER_MPI ${VEKR_RENDER_MPI_LINKS})
endif()
message(STATUS "vekr-render: distributed renderer (MPI): ${VEKR_RENDER_MPI}")
set(VEKR_RENDER_MPI ${VEKR_RENDER_MPI} CACHE INTERNAL "vekr-render-mpi is built")
if(VEKR_RENDER_MPI)
  add_executable(vekr-render-mpi render/main_mpi.cpp render/options.cpp)
  target_link_libraries(vekr-render-mpi PRIVATE vekr_render_core MPI::MPI_CXX)
endif()
target_sources(vekr-render PRIVATE render/options.cpp)
