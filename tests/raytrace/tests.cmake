vekr_add_test(test_raytrace COMPONENTS core scene raytrace SOURCES raytrace/rules_test.cpp raytrace/bunny_test.cpp)
