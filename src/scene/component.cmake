vekr_component(scene scene/bound_box.cpp)
