vekr_add_test(test_resize COMPONENTS core resize SOURCES volume/resize_test.cpp volume/volume_testutil.h)
