// Command lookup by name or number over the rows of StorageCmdList.h.
#include "lumctl/cmd_table.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <StorageCmdList.h>

namespace lumctl {

namespace {

#define LUMCTL_CMD_ROW(name, value, request, reply) {#name, value, request, reply},
const CmdRow kRows[] = {LUM_STORAGE_CMD_LIST(LUMCTL_CMD_ROW)};
#undef LUMCTL_CMD_ROW

const char* const kPrefixes[] = {"STORAGE_", "STROAGE_"};

// The name without its STORAGE_/STROAGE_ prefix (case-insensitive).
const char* strip_prefix(const char* name)
{
    for (const char* prefix : kPrefixes) {
        size_t len = strlen(prefix);
        if (strncasecmp(name, prefix, len) == 0)
            return name + len;
    }
    return name;
}

// Compares ignoring case, with '-' standing for '_'.
bool loose_equal(const char* a, const char* b)
{
    for (; *a != '\0' && *b != '\0'; ++a, ++b) {
        char ca = *a == '-' ? '_' : static_cast<char>(toupper(static_cast<unsigned char>(*a)));
        char cb = *b == '-' ? '_' : static_cast<char>(toupper(static_cast<unsigned char>(*b)));
        if (ca != cb)
            return false;
    }
    return *a == *b;
}

}  // namespace

const CmdRow* cmd_rows(size_t* count)
{
    *count = sizeof(kRows) / sizeof(kRows[0]);
    return kRows;
}

const CmdRow* cmd_by_value(int32_t value)
{
    for (const CmdRow& row : kRows) {
        if (row.value == value)
            return &row;
    }
    return nullptr;
}

bool parse_cmd_number(const char* text, int32_t* out)
{
    if (text[0] == '\0' || !isdigit(static_cast<unsigned char>(text[0])))
        return false;
    char* end = nullptr;
    errno = 0;
    long long value = strtoll(text, &end, strncasecmp(text, "0x", 2) == 0 ? 16 : 10);
    if (errno != 0 || *end != '\0' || value > INT32_MAX)
        return false;
    *out = static_cast<int32_t>(value);
    return true;
}

const CmdRow* cmd_find(const char* word)
{
    int32_t number = 0;
    if (parse_cmd_number(word, &number))
        return cmd_by_value(number);
    for (const CmdRow& row : kRows) {
        if (strcmp(row.name, word) == 0)
            return &row;
    }
    const char* bare = strip_prefix(word);
    for (const CmdRow& row : kRows) {
        if (loose_equal(strip_prefix(row.name), bare))
            return &row;
    }
    return nullptr;
}

}  // namespace lumctl
