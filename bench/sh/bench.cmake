vekr_add_bench(bench_sh SOURCES sh/bench_sh.cpp)
