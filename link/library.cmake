# The one shared object: all variant objects, their entries, one runtime, the
# TBB glue, the memcpy wrapper and the runtime's block allocator. Only the
# families in flatmorph.map are exported; the runtime's memcpy calls are bound
# to the baseline glibc version.
add_library(flatmorph SHARED
  ${FLATMORPH_VARIANT_OBJECTS}
  ${FLATMORPH_ENTRY_SOURCES}
  ${FLATMORPH_RUNTIME_OBJECT}
  glue/registerTBB.cpp
  wrap_memcpy/memcpy_glibc225_pic.c
  wrap_malloc/runtime_blocks.c)
target_include_directories(flatmorph
  PUBLIC $<BUILD_INTERFACE:${FLATMORPH_INCLUDE_DIR}>
  PRIVATE ${CMAKE_SOURCE_DIR}/pipelines)
target_link_libraries(flatmorph PUBLIC Halide::Runtime PRIVATE TBB::tbb TBB::tbbmalloc)
set(FLATMORPH_VERSION_SCRIPT ${CMAKE_SOURCE_DIR}/link/flatmorph.map)
target_link_options(flatmorph PRIVATE
  -Wl,--wrap=memcpy
  -Wl,--version-script=${FLATMORPH_VERSION_SCRIPT}
  -Wl,-z,defs
  -Wl,--no-as-needed)
set_target_properties(flatmorph PROPERTIES
  LINK_DEPENDS ${FLATMORPH_VERSION_SCRIPT}
  BUILD_RPATH "$ORIGIN"
  INSTALL_RPATH "$ORIGIN")
