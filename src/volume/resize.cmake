vekr_component(resize volume/geometry.cpp volume/resize.cpp volume/team.h)
