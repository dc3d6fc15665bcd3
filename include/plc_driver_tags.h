/*
 * One parsed tag list line, and the exported line parser. Valid C89 and C++98.
 */
#ifndef PLC_DRIVER_TAGS_H
#define PLC_DRIVER_TAGS_H

#include <stdint.h>

#include "plc_driver_api.h"

/*
 * One parsed tag list line (natural layout, 288 bytes). The format of a line
 * (eight comma-separated fields: name, type, bounds, string length, comment,
 * address, class, tag id) is described with the example tag list.
 */
typedef struct TagEntry {
    char name[256];     /* the variable name, zero-terminated (at most 255 characters) */
    uint32_t bits;      /* element width in bits: 1, 8, 16, 32, 64; 0 for the types
                           without a fixed width (STRING, DATE, ...) */
    uint16_t type_code; /* CIP data type code (BOOL 0xC1 ... TIME 0xD6); 0 when unknown */
    uint16_t lo1, hi1;  /* bounds of the first dimension */
    uint16_t lo2, hi2;  /* bounds of the second dimension */
    uint16_t lo3, hi3;  /* bounds of the third dimension */
    uint16_t str_len;   /* declared length of a STRING, in characters */
    uint32_t bit_no;    /* bit number of the address field (".05" is 5, ".A" is 10) */
    uint32_t dim_type;  /* 0 scalar, 1 one dimension, 3 STRING with a length,
                           4 two dimensions, 5 three dimensions */
    uint32_t tag_id;    /* the tag id field (add_tag_pase_str leaves it 0) */
} TagEntry;

#if defined(__cplusplus) && __cplusplus >= 201103L
static_assert(sizeof(TagEntry) == 288, "TagEntry layout");
#endif

PLC_BEGIN_DECLS

/*
 * Parses one tag list line into *entry (zero-filled first) for the host's
 * framework: field 1 is the name, field 2 the type, field 3 a one-dimensional
 * "[a..b]", field 4 the length of a STRING, field 6 the bit number; the tag
 * id is not read, and 64-bit types keep their declared bounds. The driver's
 * own reading of tag lists is stricter. Returns 0, or -1 for a null argument.
 */
PLC_API int add_tag_pase_str(const char *line, TagEntry *entry);

PLC_END_DECLS

#endif /* PLC_DRIVER_TAGS_H */
