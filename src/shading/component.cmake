vekr_component(shading shading/ray_cast.cpp shading/hit_normal.cpp shading/packet_ops.cpp)
