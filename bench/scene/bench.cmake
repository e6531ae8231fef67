vekr_add_bench(bench_scene SOURCES scene/kd_build_bench.cpp)
