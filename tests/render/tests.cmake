# The renderer end to end: image properties of a small scene, and the CLI's errors.
if(TARGET vekr_render_core)
  vekr_add_test(test_render SOURCES render/render_test.cpp)
  target_link_libraries(test_render PRIVATE vekr_render_core)
  target_compile_definitions(test_render PRIVATE VEKR_RENDER_BIN="$<TARGET_FILE:vekr-render>")
  add_dependencies(test_render vekr-render)
endif()
