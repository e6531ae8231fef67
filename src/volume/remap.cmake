vekr_component(remap volume/remap.cpp volume/warp.cpp volume/plane.cpp
  volume/remap_kernels.h volume/plane.h volume/interp_weights.h volume/team.h)
