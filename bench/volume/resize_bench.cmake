vekr_add_bench(bench_resize SOURCES volume/resize_bench.cpp)
