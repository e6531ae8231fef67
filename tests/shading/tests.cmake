vekr_add_test(test_shading COMPONENTS core shading SOURCES
  shading/ray_cast_test.cpp shading/hit_normal_test.cpp shading/packet_ops_test.cpp)
# Arrays against guard pages, every count and alignment, and bad counts.
vekr_add_test(test_shading_guard COMPONENTS core shading SOURCES shading/guard_page_ops_test.cpp)
