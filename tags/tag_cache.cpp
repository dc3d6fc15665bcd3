#include "tags/tag_cache.h"

#include <cstdio>
#include <cstring>
#include <new>

namespace plc {

TagTableCache g_plc_tags;

namespace {

uint32_t next_table_serial = 0;

void print_not_exist(uint32_t tag_id, const char *file_name, int line) {
    std::printf("[PLC] ");
    std::printf("tag id %u is not exist in this tag list %s", tag_id, file_name);
    std::printf(", at line: %d\r\n", line);
}

void print_not_exist(uint32_t tag_id, uint32_t bound, int line) {
    std::printf("[PLC] ");
    std::printf("tag id %u is not exist in this tag list %u", tag_id, bound);
    std::printf(", at line: %d\r\n", line);
}

// True while `name` names the very file that was refused; a refusal whose
// file changed or went away is forgotten, and the list is read again.
bool still_refused(TagTableCache &head, const char *name) {
    for (auto it = head.refused.begin(); it != head.refused.end(); ++it) {
        if (it->name != name) continue;
        FileStamp now;
        if (stamp_of(name, now) && now == it->stamp) return true;
        head.refused.erase(it);
        return false;
    }
    return false;
}

// Only a refusal that the same file would get again is worth remembering: a
// file that could not be opened or read, or ran out of memory, is tried again.
void remember_refusal(TagTableCache &head, const char *name, const ParsedTagList &list) {
    if (list.status != TagListStatus::Refused || !list.refusal.lasting) {
        return;
    }
    try {
        head.refused.push_back(RefusedTagList{name, list.stamp});
    } catch (const std::bad_alloc &) {
        // Not remembered: the list is only read again next time.
    }
}

} // namespace

void init_tag(TagTableCache &head) {
    // A new initialisation reads every list again; the tables of the earlier one
    // are released here. What keeps a pointer into them across calls checks a
    // table's serial first (the plans of remembered request sets) or goes with
    // them (the last table found).
    head.tables.clear();
    head.refused.clear();
    head.last = TagTableCache::Found{};
}

int add_tagtable(TagTableCache &head, const char *name, std::vector<TagEntry> &&tag_str,
                 std::vector<IndexedGroup> &&indexedtag_table, const uint32_t counts[2]) {
    // The record is made in a list of its own and spliced in only when complete,
    // so a failed allocation leaves the cache as it was and the arrays with the
    // caller.
    std::list<TagTable> record;
    try {
        record.emplace_back();
    } catch (const std::bad_alloc &) {
        std::printf("[PLC] malloc plc_tag failed at line %d\r\n", 553);
        return -1;
    }
    try {
        record.front().name = name != nullptr ? name : "";
    } catch (const std::bad_alloc &) {
        std::printf("[PLC] malloc name failed at line %d\r\n", 558);
        return -2;
    }
    TagTable &table = record.front();
    table.serial = ++next_table_serial;
    table.tag_str = std::move(tag_str);
    table.indexedtag_table = std::move(indexedtag_table);
    table.tag_num = counts != nullptr ? counts[0] : 0;
    table.max_index_id = counts != nullptr ? counts[1] : 0;
    head.tables.splice(head.tables.begin(), record);
    return 1;
}

TagTable *get_tagtable(TagTableCache &head, const char *name) {
    if (name == nullptr) {
        return nullptr;
    }
    for (TagTable &table : head.tables) {
        if (table.name == name) {
            return &table;
        }
    }
    return nullptr;
}

void get_csv_name(const DriverSettings *settings, const PlcRequest *request, char *buffer) {
    if (buffer == nullptr) {
        return;
    }
    // Without settings (an entry called before wk_plc_init) no list can be named;
    // the empty name then fails to open with the usual messages.
    if (settings == nullptr || request == nullptr) {
        buffer[0] = '\0';
        return;
    }
    std::snprintf(buffer, kCsvNameSize, "PLC%X_%u.csv", static_cast<unsigned>(settings->ip_address),
                  static_cast<unsigned>(request->device));
}

void get_csv_name1(const DriverSettings *settings, const PlcRequest *request, char *buffer) {
    get_csv_name(settings, request, buffer);
}

TagTable *find_or_build_tagtable(const DriverSettings *settings, const PlcRequest &request,
                                 const TagLookupLines &lines, bool batch, char *name_out) {
    char local_name[kCsvNameSize];
    char *name = name_out != nullptr ? name_out : local_name;
    TagTableCache::Found &last = g_plc_tags.last;
    if (last.table != nullptr && settings != nullptr && last.address == settings->ip_address &&
        last.device == request.device) {
        std::memcpy(name, last.name, kCsvNameSize);
        return last.table;
    }
    if (batch) {
        get_csv_name1(settings, &request, name);
    } else {
        get_csv_name(settings, &request, name);
    }
    if (TagTable *table = get_tagtable(g_plc_tags, name)) {
        if (settings != nullptr) {
            last.table = table;
            last.address = settings->ip_address;
            last.device = request.device;
            std::memcpy(last.name, name, kCsvNameSize);
        }
        return table;
    }

    if (still_refused(g_plc_tags, name)) {
        std::printf("[PLC] build tag table failed! at line %d\r\n", lines.build_failed);
        return nullptr;
    }

    std::vector<TagEntry> tag_str;
    std::vector<IndexedGroup> indexedtag_table;
    ParsedTagList list = parse_tag_list(name);
    const uint32_t *counts = publish_tag_list(list, &tag_str, &indexedtag_table, groupID_table);
    if (counts == nullptr) {
        remember_refusal(g_plc_tags, name, list);
    }
    // The batch entry also takes a list without any tag for a failed build.
    if (counts == nullptr || (batch && counts[0] == 0 && counts[1] == 0)) {
        std::printf("[PLC] build tag table failed! at line %d\r\n", lines.build_failed);
        return nullptr;
    }
    if (add_tagtable(g_plc_tags, name, std::move(tag_str), std::move(indexedtag_table), counts) <
        0) {
        std::printf("[PLC] add_tagtable failed! at line %d\r\n", lines.add_failed);
        return nullptr;
    }
    return get_tagtable(g_plc_tags, name);
}

bool check_tag_id(const TagTable &table, uint32_t tag_id, const char *file_name,
                  const TagLookupLines &lines, bool batch) {
    // Tag ids from the host's records are at most 0xFFFF for plain tags, so the
    // plain bound below is the same as the batch entry's "tag_num to 0x3FFFE";
    // refusing 0x3FFFF as well keeps every id that passes inside the table.
    if (tag_id_in_table(table, tag_id)) return true;
    if (tag_id < PLC_INDEXED_TAG_BASE) {
        if (batch) {
            print_not_exist(tag_id, table.tag_num, lines.plain_missing);
        } else {
            print_not_exist(tag_id, file_name != nullptr ? file_name : "", lines.plain_missing);
        }
        return false;
    }
    if (batch) {
        print_not_exist(tag_id, table.max_index_id, lines.indexed_missing);
    } else {
        print_not_exist(tag_id, file_name != nullptr ? file_name : "", lines.indexed_missing);
    }
    return false;
}

const TagEntry *find_request_entry(const DriverSettings *settings, const PlcRequest &request,
                                   uint32_t tag_id, const TagLookupLines &lines,
                                   TagTable **table_out) {
    // Tag lists are named from the settings: before wk_plc_init there is none.
    if (settings == nullptr) return nullptr;
    char file_name[kCsvNameSize] = {};
    TagTable *table = find_or_build_tagtable(settings, request, lines, false, file_name);
    if (table == nullptr || !check_tag_id(*table, tag_id, file_name, lines, false)) return nullptr;
    *table_out = table;
    const TagLookup where = lookup_tag(*table, tag_id);
    print_unreachable_tag(*table, tag_id, where);
    return where.entry;
}

} // namespace plc
