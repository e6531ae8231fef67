vekr_add_test(test_core COMPONENTS core scene SOURCES
  core/frame_test.cpp core/bound_box_test.cpp core/guard_page_test.cpp core/core_extremes_test.cpp
  core/header_c99.c)
# Entry points called from a stack off 16-byte alignment (i386).
vekr_add_test(test_entry_stack COMPONENTS core scene raytrace shading sh resize remap filter SOURCES
  core/entry_stack_test.cpp)
set_source_files_properties(core/header_c99.c PROPERTIES COMPILE_OPTIONS "-std=c99;-pedantic;-Werror")

# The shared objects export exactly the declared entry points and nothing else.
add_test(NAME exports_vekr
  COMMAND ${PROJECT_SOURCE_DIR}/tools/check_exports.sh $<TARGET_FILE:vekr> ${PROJECT_SOURCE_DIR}/include/vekr.h vekr VEKR_7.0)
add_test(NAME exports_vekcore
  COMMAND ${PROJECT_SOURCE_DIR}/tools/check_exports.sh $<TARGET_FILE:vekcore> ${PROJECT_SOURCE_DIR}/include/vekcore.h "vek|ownGetNumThreads" VEKCORE_7.0)
