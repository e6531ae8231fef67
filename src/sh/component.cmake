vekr_component(sh sh/sh_state.cpp sh/sh_eval.cpp sh/sh_transform.cpp)
