vekr_add_test(test_scene COMPONENTS core scene SOURCES scene/scene_test.cpp)
