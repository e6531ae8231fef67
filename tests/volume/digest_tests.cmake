# Digests of every volume operation's output, held against volume_digests.txt
# (the same file on both targets).
vekr_add_test(test_volume_digest COMPONENTS core resize remap filter SOURCES volume/volume_digest_test.cpp)
target_compile_definitions(test_volume_digest PRIVATE
  VEKR_VOLUME_DIGEST_FILE="${CMAKE_CURRENT_SOURCE_DIR}/volume/volume_digests.txt")
