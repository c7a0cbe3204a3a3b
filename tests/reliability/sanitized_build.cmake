# Stands in for pipelines/variants.cmake in a sanitizer build: the pipeline
# objects, their entry sources and the runtime object come from the variants/
# folder of a normal build, so the 162 Halide compiles run once per CI run.
# Halide's generated code stays uninstrumented; everything compiled here (the
# entries, the TBB glue, the memcpy wrapper, the tests) gets ASan and UBSan.
set(FLATMORPH_PREBUILT_VARIANTS "" CACHE PATH "The variants/ folder of a normal build")
if(NOT EXISTS "${FLATMORPH_PREBUILT_VARIANTS}/halide_runtime.o")
  message(FATAL_ERROR "FLATMORPH_SANITIZE needs FLATMORPH_PREBUILT_VARIANTS, the variants/ folder of a normal build")
endif()

include(${CMAKE_SOURCE_DIR}/pipelines/matrix.cmake)
set(FLATMORPH_VARIANT_OBJECTS "")
set(FLATMORPH_ENTRY_SOURCES "")
set(FLATMORPH_DECLARATIONS "")
macro(flatmorph_reuse_variant filter type tag)
  set(_v ${filter}_${type}_${tag})
  list(APPEND FLATMORPH_VARIANT_OBJECTS ${FLATMORPH_PREBUILT_VARIANTS}/${_v}.o)
  list(APPEND FLATMORPH_ENTRY_SOURCES ${FLATMORPH_PREBUILT_VARIANTS}/${_v}_entry.c)
  string(APPEND FLATMORPH_DECLARATIONS "FLATMORPH_DECLARE(${_v})\n")
endmacro()
flatmorph_foreach_variant(flatmorph_reuse_variant)
set(FLATMORPH_RUNTIME_OBJECT ${FLATMORPH_PREBUILT_VARIANTS}/halide_runtime.o)

set(FLATMORPH_INCLUDE_DIR ${CMAKE_BINARY_DIR}/include)
configure_file(${CMAKE_SOURCE_DIR}/pipelines/flatmorph.h.in ${FLATMORPH_INCLUDE_DIR}/flatmorph.h @ONLY)

add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer)
add_link_options(-fsanitize=address,undefined)
