# vekr-render: the library's main job end to end, through the public header only.
add_library(vekr_render_core STATIC render/mesh_io.cpp render/renderer.cpp)
target_include_directories(vekr_render_core PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/render)
target_link_libraries(vekr_render_core PUBLIC vekr vekcore OpenMP::OpenMP_CXX)
# tinyobjloader's implementation is compiled from its header; its warnings are not ours.
set_source_files_properties(render/mesh_io.cpp PROPERTIES COMPILE_OPTIONS "-Wno-error")
add_executable(vekr-render render/main.cpp)
target_link_libraries(vekr-render PRIVATE vekr_render_core)
