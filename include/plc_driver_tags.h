/*
 * One parsed tag list line, and the exported line parser. Valid C89 and C++98.
 */
#ifndef PLC_DRIVER_TAGS_H
#define PLC_DRIVER_TAGS_H

#include <stdint.h>

#include "plc_driver_api.h"

/* One parsed tag list line (natural layout, 288 bytes). */
typedef struct TagEntry {
    char name[256];
    uint32_t bits;
    uint16_t type_code;
    uint16_t lo1, hi1;
    uint16_t lo2, hi2;
    uint16_t lo3, hi3;
    uint16_t str_len;
    uint32_t bit_no;
    uint32_t dim_type;
    uint32_t tag_id;
} TagEntry;

#if defined(__cplusplus) && __cplusplus >= 201103L
static_assert(sizeof(TagEntry) == 288, "TagEntry layout");
#endif

PLC_BEGIN_DECLS

/* Tag list line parser (simple variant: no name rule, no double words, no tag id). */
PLC_API int add_tag_pase_str(const char *line, TagEntry *entry);

PLC_END_DECLS

#endif /* PLC_DRIVER_TAGS_H */
