# The one place where filters, element types and instruction-set tags are
# crossed into variants. Everything per variant (its compile step, its entry
# declarations, the test tables) is expanded from these lists.
set(FLATMORPH_FILTERS imdilate imerode imopen imclose imtophat imbothat)
set(FLATMORPH_TYPES bool int8 uint8 int16 uint16 int32 uint32 float32 float64)
set(FLATMORPH_TAGS none avx avx2)

# flatmorph_foreach_variant(<macro>): calls <macro>(filter type tag) for all 162.
macro(flatmorph_foreach_variant callback)
  foreach(_fm_filter IN LISTS FLATMORPH_FILTERS)
    foreach(_fm_type IN LISTS FLATMORPH_TYPES)
      foreach(_fm_tag IN LISTS FLATMORPH_TAGS)
        cmake_language(CALL ${callback} ${_fm_filter} ${_fm_type} ${_fm_tag})
      endforeach()
    endforeach()
  endforeach()
endmacro()
