vekr_add_bench(bench_raytrace SOURCES raytrace/bench_raytrace.cpp)

# The three renderer workloads beside Embree 3 in the same process. Embree is
# a benchmark peer only: without VEKR_BENCH_EMBREE (or on i386, where Debian
# has no Embree) the program times the library alone.
option(VEKR_BENCH_EMBREE "Benchmark the ray queries against Embree 3 (libembree-dev)" OFF)
vekr_add_bench(bench_raytrace_peer SOURCES raytrace/bench_peer.cpp)
if(VEKR_BENCH_EMBREE)
  find_package(embree 3 REQUIRED)
  target_link_libraries(bench_raytrace_peer PRIVATE embree)
  target_compile_definitions(bench_raytrace_peer PRIVATE VEKR_HAVE_EMBREE)
endif()
