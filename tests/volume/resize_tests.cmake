vekr_add_test(test_resize COMPONENTS core resize SOURCES volume/resize_test.cpp volume/volume_testutil.h)
vekr_add_test(test_volume_robust COMPONENTS core resize remap filter SOURCES volume/volume_robust_test.cpp volume/volume_testutil.h)
