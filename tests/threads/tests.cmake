# Parallel regions and concurrent callers: the race test under ThreadSanitizer
# (tools/sanitize.sh tsan), a determinism test in every other build.
vekr_add_test(test_threads COMPONENTS scene shading resize remap filter SOURCES threads/threads_test.cpp)
