vekr_add_bench(bench_shading SOURCES shading/bench_shading.cpp)
