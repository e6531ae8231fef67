# The volume and single-plane workloads beside OpenCV in the same process.
# OpenCV is a benchmark peer only (never linked by the library or its tests);
# the program is built only with VEKR_BENCH_OPENCV=ON (libopencv-dev, x86-64).
option(VEKR_BENCH_OPENCV "Benchmark the volume operations against OpenCV (libopencv-dev)" OFF)
if(VEKR_BENCH_OPENCV)
  find_package(OpenCV REQUIRED COMPONENTS core imgproc)
  vekr_add_bench(bench_volume_peer SOURCES volume/bench_volume_peer.cpp)
  target_link_libraries(bench_volume_peer PRIVATE opencv_core opencv_imgproc)
  target_include_directories(bench_volume_peer SYSTEM PRIVATE ${OpenCV_INCLUDE_DIRS})
endif()
