vekr_add_bench(bench_raytrace SOURCES raytrace/bench_raytrace.cpp)
