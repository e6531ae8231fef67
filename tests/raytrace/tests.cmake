vekr_add_test(test_raytrace COMPONENTS core scene raytrace SOURCES raytrace/rules_test.cpp raytrace/bunny_test.cpp
  raytrace/tile_ties_test.cpp)
# Hostile rays against guarded output arrays, and block sizes that describe no array.
vekr_add_test(test_raytrace_hostile COMPONENTS core scene raytrace SOURCES raytrace/hostile_rays_test.cpp)
