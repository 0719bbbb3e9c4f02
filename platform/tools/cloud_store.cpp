// cloud_store: the records of the configuration store as JSON, for people and tests. Members bear the
// names of the fields; texts and numbers stand at the offsets that the device's programs use.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <span>

#include "cloud_owner.h"
#include "state_file.h"
#include "store_objects.h"
#include "tool_text.h"
#include "wrapper.h"

namespace {

constexpr char kTool[] = "cloud_store";
constexpr std::array kCommands{"dump", "get", "set", "clear", "--help", "--version"};

constexpr size_t kLongestRecord = WRP_UPGRADE_INFO_BYTES;
using RecordBytes = std::array<unsigned char, kLongestRecord>;

enum class Kind { kText, kNumber, kCount };  // kCount: a number that only the store fills

struct Field {
    const char *record;
    const char *name;
    Kind kind;
    uint16_t offset;
    uint16_t size;  // bytes; of a text with its terminator
};

constexpr Field kFields[] = {
    {"login", "role", Kind::kNumber, 0, 1},
    {"login", "userName", Kind::kText, 1, kAccountNameSize},
    {"upgrade-time", "seconds", Kind::kNumber, 0, 4},
    {"upgrade-time", "flag", Kind::kNumber, 4, 4},
    {"device-status", "bind_status", Kind::kNumber, 0, 1},
    {"device-status", "need_unbind", Kind::kNumber, 1, 1},
    {"upgrade-info", "location", Kind::kNumber, 0, 1},
    {"upgrade-info", "type", Kind::kNumber, 1, 1},
    {"upgrade-info", "releaseDate", Kind::kText, 2, 17},
    {"upgrade-info", "version", Kind::kText, 276, 65},
    {"upgrade-info", "releaseLog", Kind::kText, 341, 1025},
    {"upgrade-info", "releaseLogUrl", Kind::kText, 1366, 257},
    {"upgrade-info", "url", Kind::kText, 1623, 1025},
    {"device-info", "kind", Kind::kNumber, 0, 1},
    {"device-info", "alias", Kind::kText, 1, 65},
    {"account", "count", Kind::kCount, 0, 4},
    {"account", "userName", Kind::kText, kAccountNameOffset, kAccountNameSize},
    {"account", "password", Kind::kText, 133, 513},
};

[[nodiscard]] bool _is_of(const Field &field, const Record &record) {
    return strcmp(field.record, record.name) == 0;
}

[[nodiscard]] const Record *_find_record(const char *name) {
    for (const Record &record : kRecords) {
        if (strcmp(record.name, name) == 0) {
            return &record;
        }
    }
    return nullptr;
}

// Store access -------------------------------------------------------------------------------------

// @param what  "read" or "written"
int _failed(const char *what) {
    const int reason = errno;
    PathText path;
    if (!state_storeFile(&path)) {
        fprintf(stderr, "%s: no place for the store: its path is too long, or HOME is not set\n", kTool);
        return kExitFailed;
    }
    return tool_fileFailed(kTool, path.data(), what, reason);
}

[[nodiscard]] bool _read(const Record &record, RecordBytes *bytes) {
    errno = 0;
    WrpOpEntry entry{record.readId, 0, 0, reinterpret_cast<uintptr_t>(bytes->data()), record.size};
    if (wrpOpGrpDo(&entry, sizeof(entry), WRP_READ) == 0) {
        return true;
    }
    _failed("read");
    return false;
}

[[nodiscard]] int _write(std::span<WrpOpEntry> entries) {
    errno = 0;
    if (wrpOpGrpDo(entries.data(), static_cast<int>(entries.size_bytes()), WRP_WRITE) == 0) {
        return 0;
    }
    return _failed("written");
}

[[nodiscard]] WrpOpEntry _write_entry(const Record &record, const RecordBytes &bytes) {
    return {record.writeId, reinterpret_cast<uintptr_t>(bytes.data()), record.size, 0, 0};
}

// The account list has an id of its own for clearing.
[[nodiscard]] WrpOpEntry _clear_entry(const Record &record) {
    static constexpr RecordBytes kZeros{};
    return &record == &kAccountRecord ? WrpOpEntry{WRP_ACCOUNT_DELETE_ALL, 0, 0, 0, 0}
                                      : _write_entry(record, kZeros);
}

// Fields -------------------------------------------------------------------------------------------

// Numbers of 1 or 4 bytes, in the device's byte order.
[[nodiscard]] uint32_t _number(const Field &field, const RecordBytes &bytes) {
    uint32_t value = bytes[field.offset];
    if (field.size == sizeof(value)) {
        memcpy(&value, bytes.data() + field.offset, sizeof(value));
    }
    return value;
}

void _set_number(const Field &field, uint32_t value, RecordBytes *bytes) {
    if (field.size == sizeof(value)) {
        memcpy(bytes->data() + field.offset, &value, sizeof(value));
    } else {
        (*bytes)[field.offset] = static_cast<unsigned char>(value);
    }
}

[[nodiscard]] bool _add_member(cJSON *object, const Field &field, const RecordBytes &bytes) {
    if (field.kind != Kind::kText) {
        return cJSON_AddNumberToObject(object, field.name, _number(field, bytes)) != nullptr;
    }
    char text[kLongestRecord + 1] = "";  // a stored text may fill its field without a terminator
    memcpy(text, bytes.data() + field.offset, field.size);
    return cJSON_AddStringToObject(object, field.name, text) != nullptr;
}

// @return what is wrong with the value; null when it was taken over.
[[nodiscard]] const char *_set_field(const Field &field, const cJSON *value, RecordBytes *bytes) {
    if (field.kind == Kind::kText) {
        if (!cJSON_IsString(value)) {
            return "must be a text";
        }
        const size_t length = strlen(value->valuestring);
        if (length >= field.size) {
            return "is too long";
        }
        memset(bytes->data() + field.offset, 0, field.size);
        memcpy(bytes->data() + field.offset, value->valuestring, length);
        return nullptr;
    }
    const double highest = field.size == 1 ? UINT8_MAX : UINT32_MAX;
    const double given = cJSON_IsNumber(value) ? value->valuedouble : -1;
    if (!(given >= 0 && given <= highest) || static_cast<uint32_t>(given) != given) {
        return "must be a whole number that fits";
    }
    _set_number(field, field.kind == Kind::kCount ? 0 : static_cast<uint32_t>(given), bytes);
    return nullptr;
}

[[nodiscard]] const Field *_find_field(const Record &record, const char *name) {
    for (const Field &field : kFields) {
        if (_is_of(field, record) && strcmp(field.name, name) == 0) {
            return &field;
        }
    }
    return nullptr;
}

[[nodiscard]] bool _set_members(const Record &record, const cJSON *object, RecordBytes *bytes) {
    const cJSON *member = nullptr;
    cJSON_ArrayForEach(member, object) {
        const Field *const field = _find_field(record, member->string);
        const char *const fault = field == nullptr ? "is no field" : _set_field(*field, member, bytes);
        if (fault != nullptr) {
            fprintf(stderr, "cloud_store: %s of %s %s\n", member->string, record.name, fault);
            return false;
        }
    }
    return true;
}

// Commands -----------------------------------------------------------------------------------------

[[nodiscard]] JsonTree _to_json(const Record &record) {
    RecordBytes bytes{};
    JsonTree object(cJSON_CreateObject());
    if (!_read(record, &bytes)) {
        return nullptr;
    }
    for (const Field &field : kFields) {
        if (_is_of(field, record) && !_add_member(object.get(), field, bytes)) {
            return nullptr;
        }
    }
    return object;
}

[[nodiscard]] int _print(const char *text) {
    return text != nullptr && puts(text) >= 0 ? 0 : kExitFailed;
}

[[nodiscard]] int _dump() {
    const JsonTree all(cJSON_CreateObject());
    for (const Record &record : kRecords) {
        JsonTree object = _to_json(record);
        if (object == nullptr || cJSON_AddItemToObject(all.get(), record.name, object.get()) == 0) {
            return kExitFailed;
        }
        static_cast<void>(object.release());  // the tree owns it now
    }
    return _print(JsonText(cJSON_Print(all.get())).get());
}

[[nodiscard]] int _get(const Record &record) {
    const JsonTree object = _to_json(record);
    return object == nullptr ? kExitFailed : _print(JsonText(cJSON_PrintUnformatted(object.get())).get());
}

// The parser ends a text at such a NUL without a word.
[[nodiscard]] bool _has_escaped_nul(const char *text) {
    while ((text = strchr(text, '\\')) != nullptr) {
        if (strncmp(text, "\\u0000", 6) == 0) {
            return true;
        }
        text += text[1] != '\0' ? 2 : 1;
    }
    return false;
}

// Members that are not given keep their value.
[[nodiscard]] int _set(const Record &record, const char *text) {
    const JsonTree object(cJSON_ParseWithOpts(text, nullptr, 1));
    if (!cJSON_IsObject(object.get())) {
        fprintf(stderr, "cloud_store: the value must be a JSON object\n");
        return kExitUsage;
    }
    if (_has_escaped_nul(text)) {
        fprintf(stderr, "cloud_store: a text must not hold a NUL\n");
        return kExitUsage;
    }
    RecordBytes bytes{};
    if (!_read(record, &bytes)) {
        return kExitFailed;
    }
    if (!_set_members(record, object.get(), &bytes)) {
        return kExitUsage;
    }
    WrpOpEntry entry = _write_entry(record, bytes);
    return _write({&entry, 1});
}

[[nodiscard]] int _clear_all() {
    std::array<WrpOpEntry, std::size(kRecords)> entries;
    for (size_t i = 0; i < entries.size(); ++i) {
        entries[i] = _clear_entry(kRecords[i]);
    }
    return _write(entries);
}

[[nodiscard]] int _clear(const Record &record) {
    WrpOpEntry entry = _clear_entry(record);
    return _write({&entry, 1});
}

[[nodiscard]] int _usage(FILE *output, int status) {
    fprintf(output,
            "Usage: cloud_store dump\n"
            "       cloud_store get NAME\n"
            "       cloud_store set NAME JSON    members that are not given keep their value\n"
            "       cloud_store clear [NAME]\n"
            "       cloud_store --help | --version\n"
            "Names:");
    for (const Record &record : kRecords) {
        fprintf(output, " %s", record.name);
    }
    fprintf(output, "\n");
    return status;
}

[[nodiscard]] int _run(int argc, char **argv) {
    const char *const command = argc > 1 ? argv[1] : "";
    const auto is = [&](const char *name, int words) { return argc == words && strcmp(command, name) == 0; };
    if (is("-h", 2) || is("--help", 2)) {
        return _usage(stdout, 0);
    }
    if (tool_answersVersion(kTool, argc, argv)) {
        return 0;
    }
    if (is("dump", 2)) {
        return _dump();
    }
    if (is("clear", 2)) {
        return _clear_all();
    }
    if (!is("get", 3) && !is("set", 4) && !is("clear", 3)) {
        const bool known = std::any_of(kCommands.begin(), kCommands.end(),
                                       [&](const char *name) { return strcmp(command, name) == 0; });
        return known || argc < 2 ? _usage(stderr, kExitUsage)
                                 : tool_wrongWord(kTool, "command", command, kCommands);
    }
    const Record *const record = _find_record(argv[2]);
    if (record == nullptr) {
        std::array<const char *, std::size(kRecords)> names{};
        std::transform(std::begin(kRecords), std::end(kRecords), names.begin(),
                       [](const Record &each) { return each.name; });
        return tool_wrongWord(kTool, "record", argv[2], names);
    }
    if (is("get", 3)) {
        return _get(*record);
    }
    return is("set", 4) ? _set(*record, argv[3]) : _clear(*record);
}

}  // namespace

int main(int argc, char **argv) {
    return tool_ended(kTool, _run(argc, argv));
}
