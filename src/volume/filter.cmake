vekr_component(filter volume/filter.cpp)
