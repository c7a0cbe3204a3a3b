# The sources of the frame checks shared by the frame fuzzer (fuzz/) and the
# replay of its corpus (test_frame_corpus): the frame model, guarded memory,
# the fuzzed-call harness and the test support beneath them. Both builds
# compile their own copies with -fwrapv, since the model wraps at 32 bits.
set(_root ${CMAKE_CURRENT_LIST_DIR}/..)
set(FLATMORPH_FRAME_CHECK_SOURCES
  ${_root}/fuzz/frame_case.cpp
  ${_root}/fuzz/call_buffer.cpp
  ${_root}/fuzz/guarded_allocator.cpp
  ${_root}/fuzz/promises.cpp
  ${_root}/fuzz/frame_model.cpp
  ${_root}/fuzz/guarded_memory.cpp
  ${_root}/tests/support/harness.cpp
  ${_root}/tests/support/reference.cpp
  ${_root}/tests/support/regions.cpp
  ${_root}/tests/support/runtime_log.cpp)
