/* The two companions of every pipeline entry <v>: <v>_argv, which forwards an
 * argument array to <v> through its exported (interposable) name, and
 * <v>_metadata, which returns the variant's constant description. The record
 * is version 0: argument rows of name, kind, dimensions, type and three null
 * scalar pointers, laid out as halide_filter_argument_t_v0. */
#ifndef FLATMORPH_ENTRY_RECORD_H
#define FLATMORPH_ENTRY_RECORD_H

#include <HalideRuntime.h>

/* halide_filter_metadata_t with the version-0 argument row type. */
struct flatmorph_metadata_v0 {
    int32_t version;
    int32_t num_arguments;
    const struct halide_filter_argument_t_v0 *arguments;
    const char *target;
    const char *name;
};

#define FLATMORPH_BUFFER_ROW(name, kind, code, bits) \
    { name, kind, 2, {code, bits, 1}, 0, 0, 0 }

#define FLATMORPH_ENTRY(v, output, code, bits, target)                                                      \
    int v(struct halide_buffer_t *, struct halide_buffer_t *, struct halide_buffer_t *,                      \
          struct halide_buffer_t *);                                                                         \
    int v##_argv(void **args) {                                                                             \
        return v((struct halide_buffer_t *)args[0], (struct halide_buffer_t *)args[1],                     \
                 (struct halide_buffer_t *)args[2], (struct halide_buffer_t *)args[3]);                    \
    }                                                                                                        \
    static const struct halide_filter_argument_t_v0 v##_arguments[4] = {                                   \
        FLATMORPH_BUFFER_ROW("keyimForType", halide_argument_kind_input_buffer, code, bits),                \
        FLATMORPH_BUFFER_ROW("minmax", halide_argument_kind_input_buffer, halide_type_float, 64),           \
        FLATMORPH_BUFFER_ROW("strel", halide_argument_kind_input_buffer, halide_type_uint, 8),              \
        FLATMORPH_BUFFER_ROW(output, halide_argument_kind_output_buffer, code, bits),                       \
    };                                                                                                       \
    static const struct flatmorph_metadata_v0 v##_record = {0, 4, v##_arguments, target, #v};              \
    const struct halide_filter_metadata_t *v##_metadata(void) {                                             \
        return (const struct halide_filter_metadata_t *)&v##_record;                                        \
    }

#endif
