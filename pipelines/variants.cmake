# Compiles every variant ahead of time, each in its own compiler process, plus
# the one standalone runtime, and writes the header of the exported names.
include(${CMAKE_CURRENT_LIST_DIR}/matrix.cmake)

add_executable(flatmorph_compile
  pipelines/border_loads.cpp
  pipelines/border_windows.cpp
  pipelines/compile_variant.cpp
  pipelines/element_rules.cpp
  pipelines/frame_pass.cpp
  pipelines/full_mask_path.cpp
  pipelines/row_invariants.cpp
  pipelines/invariant_branches.cpp
  pipelines/lane_tests.cpp
  pipelines/loop_steps.cpp
  pipelines/row_checks.cpp
  pipelines/row_edges.cpp
  pipelines/schedule.cpp
  pipelines/stages.cpp
  pipelines/straddling_columns.cpp
  pipelines/targets.cpp
  pipelines/tile_jam.cpp)
target_link_libraries(flatmorph_compile PRIVATE Halide::Halide)

set(FLATMORPH_GEN_DIR ${CMAKE_BINARY_DIR}/variants)
file(MAKE_DIRECTORY ${FLATMORPH_GEN_DIR})
set(FLATMORPH_VARIANT_OBJECTS "")
set(FLATMORPH_ENTRY_SOURCES "")
set(FLATMORPH_DECLARATIONS "")

macro(flatmorph_add_variant filter type tag)
  set(_v ${filter}_${type}_${tag})
  set(_base ${FLATMORPH_GEN_DIR}/${_v})
  add_custom_command(
    OUTPUT ${_base}.o ${_base}_entry.c
    COMMAND flatmorph_compile variant ${filter} ${type} ${tag} ${FLATMORPH_GEN_DIR}
    COMMAND ${CMAKE_OBJCOPY} @${_base}.symbols ${_base}.raw.o ${_base}.o
    DEPENDS flatmorph_compile
    COMMENT "Compiling pipeline ${_v}"
    VERBATIM)
  list(APPEND FLATMORPH_VARIANT_OBJECTS ${_base}.o)
  list(APPEND FLATMORPH_ENTRY_SOURCES ${_base}_entry.c)
  string(APPEND FLATMORPH_DECLARATIONS "FLATMORPH_DECLARE(${_v})\n")
endmacro()
flatmorph_foreach_variant(flatmorph_add_variant)

# The runtime's malloc and free calls go to the library's own block
# allocator (wrap_malloc/runtime_blocks.c).
set(FLATMORPH_RUNTIME_OBJECT ${FLATMORPH_GEN_DIR}/halide_runtime.o)
add_custom_command(
  OUTPUT ${FLATMORPH_RUNTIME_OBJECT}
  COMMAND flatmorph_compile runtime ${FLATMORPH_GEN_DIR}/halide_runtime.raw.o
  COMMAND ${CMAKE_OBJCOPY} --redefine-sym malloc=flatmorph_runtime_malloc --redefine-sym free=flatmorph_runtime_free
          ${FLATMORPH_GEN_DIR}/halide_runtime.raw.o ${FLATMORPH_RUNTIME_OBJECT}
  DEPENDS flatmorph_compile
  COMMENT "Compiling the Halide runtime"
  VERBATIM)

set(FLATMORPH_INCLUDE_DIR ${CMAKE_BINARY_DIR}/include)
configure_file(pipelines/flatmorph.h.in ${FLATMORPH_INCLUDE_DIR}/flatmorph.h @ONLY)
