vekr_component(core core/version.cpp core/abi.cpp)
