vekr_add_test(test_scene COMPONENTS core scene SOURCES scene/scene_test.cpp)
# Guarded scene arrays, extreme counts and budgets, scenes built to hurt the build.
vekr_add_test(test_scene_hostile COMPONENTS core scene raytrace SOURCES scene/hostile_scene_test.cpp)
