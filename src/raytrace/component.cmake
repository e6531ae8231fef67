vekr_component(raytrace raytrace/intersect.cpp)
