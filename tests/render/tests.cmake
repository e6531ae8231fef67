# The renderer end to end: image properties of a small scene, the bunny's
# specks, mesh loading (formats, errors, mutated files) and the CLI's errors.
if(TARGET vekr_render_core)
  vekr_add_test(test_render SOURCES render/render_test.cpp render/mesh_load_test.cpp)
  target_link_libraries(test_render PRIVATE vekr_render_core)
  target_compile_definitions(test_render PRIVATE VEKR_RENDER_BIN="$<TARGET_FILE:vekr-render>")
  if(VEKR_RENDER_ASSIMP)
    target_compile_definitions(test_render PRIVATE VEKR_RENDER_ASSIMP)
  endif()
  add_dependencies(test_render vekr-render)
endif()
# The distributed renderer: two ranks on this machine write the same bytes as
# one process, for a still image and for a turntable.
if(TARGET vekr-render-mpi)
  find_program(VEKR_MPIEXEC NAMES mpirun mpiexec)
  set(r $<TARGET_FILE:vekr-render>)
  set(m $<TARGET_FILE:vekr-render-mpi>)
  set(args "-q -s 160x120 --tile 16 -t 1")
  add_test(NAME test_render_mpi COMMAND bash -c
    "set -e; cd \"$0\"; \"$1\" ${args} -o one.png; \"$2\" --oversubscribe -np 2 \"$3\" ${args} -o two.png; cmp one.png two.png; \
     \"$1\" ${args} --frames 3 -o turn.png; \"$2\" --oversubscribe -np 2 \"$3\" ${args} --frames 3 -o turnmpi.png; \
     for f in 000 001 002; do cmp turn_$f.png turnmpi_$f.png; done; ! cmp -s turn_000.png turn_001.png"
    ${CMAKE_CURRENT_BINARY_DIR} ${r} ${VEKR_MPIEXEC} ${m})
  # Open MPI's runtime keeps allocations to the end of the process (some in
  # plug-ins it has unloaded by then); under the sanitizer build its leaks are
  # not ours to report. test_render checks the same renderer code for leaks.
  set(mpi_env "OMPI_ALLOW_RUN_AS_ROOT=1;OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1;OMPI_MCA_rmaps_base_oversubscribe=1")
  if(VEKR_SANITIZE)
    list(APPEND mpi_env "ASAN_OPTIONS=detect_leaks=0:abort_on_error=1")
  endif()
  set_tests_properties(test_render_mpi PROPERTIES TIMEOUT 300 ENVIRONMENT "${mpi_env}")
endif()
