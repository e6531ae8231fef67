vekr_component(scene scene/bound_box.cpp scene/triangle_accel.cpp scene/kd_build.cpp scene/sah_split.cpp)
