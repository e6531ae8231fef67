vekr_add_test(test_sh COMPONENTS core sh SOURCES sh/sh_test.cpp)
vekr_add_test(test_sh_robust COMPONENTS core sh SOURCES sh/sh_robust_test.cpp)

# The generated closed-form evaluators must match what the generator makes now.
find_program(VEKR_SH_PYTHON3 NAMES python3 PATHS /usr/bin NO_DEFAULT_PATH)
if(NOT VEKR_SH_PYTHON3)
  find_program(VEKR_SH_PYTHON3 NAMES python3)
endif()
if(VEKR_SH_PYTHON3)
  add_test(NAME sh_closed_form_fresh
    COMMAND ${VEKR_SH_PYTHON3} ${PROJECT_SOURCE_DIR}/tools/gen_sh_closed_form.py
            --check ${PROJECT_SOURCE_DIR}/src/sh/sh_closed_form.inc)
endif()
