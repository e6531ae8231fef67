vekr_component(filter volume/filter.cpp volume/team.h)
