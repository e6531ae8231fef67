vekr_component(scene scene/bound_box.cpp scene/triangle_accel.cpp scene/kd_build.cpp scene/sah_split.cpp)
# The KD build's inner loops (the split sweep, the event filter, the clipping)
# gain about 3 % from -O3; it changes no result (no fast-math, contraction
# stays off, and no reduction is reassociated without -ffast-math).
set_source_files_properties(scene/kd_build.cpp scene/sah_split.cpp PROPERTIES COMPILE_OPTIONS -O3)
