vekr_add_test(test_remap COMPONENTS core remap SOURCES volume/remap_test.cpp volume/volume_testutil.h)
