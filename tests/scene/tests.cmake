vekr_add_test(test_scene COMPONENTS core scene SOURCES
  scene/triangle_accel_test.cpp scene/kd_build_test.cpp scene/kd_sah_test.cpp)
