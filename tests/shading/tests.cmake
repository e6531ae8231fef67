vekr_add_test(test_shading COMPONENTS core shading SOURCES
  shading/ray_cast_test.cpp shading/hit_normal_test.cpp shading/packet_ops_test.cpp)
