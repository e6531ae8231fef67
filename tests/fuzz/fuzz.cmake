# Fuzz harnesses, one per operation family. Every build replays each harness
# on its seed corpus and on the minimised inputs of past findings (ctest
# fuzz_replay_*). With -DVEKR_FUZZ=ON and clang (tools/fuzz.sh configures it,
# the library compiled with -fsanitize=fuzzer-no-link,address,undefined) the
# libFuzzer programs fuzz_* are built as well.
option(VEKR_FUZZ "Build the libFuzzer harnesses (clang)" OFF)

set(VEKR_FUZZ_DIR ${CMAKE_CURRENT_LIST_DIR})

# clang links the sanitizer runtimes into executables only: the shared
# objects of a sanitizer configuration (fuzzing, ThreadSanitizer) leave those
# symbols to the program that loads them.
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND CMAKE_CXX_FLAGS MATCHES "-fsanitize=")
  target_link_options(vekcore PRIVATE -Wl,-z,undefs)
  target_link_options(vekr PRIVATE -Wl,-z,undefs)
endif()

# vekr_fuzz_harness(name components...)
function(vekr_fuzz_harness name)
  set(src ${VEKR_FUZZ_DIR}/fuzz_${name}.cpp)
  add_executable(fuzz_replay_${name} ${src} ${VEKR_FUZZ_DIR}/replay_main.cpp)
  foreach(c IN LISTS ARGN)
    target_link_libraries(fuzz_replay_${name} PRIVATE vekr_${c})
  endforeach()
  target_link_libraries(fuzz_replay_${name} PRIVATE vekcore OpenMP::OpenMP_CXX)
  add_test(NAME fuzz_replay_${name} COMMAND fuzz_replay_${name}
    ${VEKR_FUZZ_DIR}/corpus/${name} ${VEKR_FUZZ_DIR}/regressions/${name})
  set_tests_properties(fuzz_replay_${name} PROPERTIES TIMEOUT 300)

  if(VEKR_FUZZ)
    # The fuzzer links the family's objects and the core services directly
    # (no shared objects: the sanitizer runtimes live in the executable).
    set(objs "")
    foreach(c IN LISTS ARGN)
      list(APPEND objs $<TARGET_OBJECTS:vekr_${c}>)
    endforeach()
    add_executable(fuzz_${name} ${src} ${objs} ${PROJECT_SOURCE_DIR}/src/core/vekcore.cpp
      ${VEKR_FUZZ_DIR}/fuzz_alloc.cpp)
    target_include_directories(fuzz_${name} PRIVATE ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(fuzz_${name} PRIVATE OpenMP::OpenMP_CXX)
    target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer,address,undefined
      -Wl,--wrap=vekMalloc -Wl,--wrap=vekFree)
  endif()
endfunction()

vekr_fuzz_harness(shading shading)
vekr_fuzz_harness(scene scene raytrace)
vekr_fuzz_harness(sh sh)
vekr_fuzz_harness(volume resize remap filter)
