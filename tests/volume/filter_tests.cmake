vekr_add_test(test_filter COMPONENTS core filter SOURCES volume/filter_test.cpp volume/volume_testutil.h)
