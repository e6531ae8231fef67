vekr_add_bench(bench_remap SOURCES volume/remap_bench.cpp)
