vekr_add_bench(bench_filter SOURCES volume/filter_bench.cpp)
