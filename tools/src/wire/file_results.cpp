// The words of the one-byte results, as the file operations define them: 0
// is success for every event; kOther words the values without a row of
// their own (a tool's status folded into one byte).
#include "lumctl/file_results.h"

#include <string>

#include <StorageEvents.h>

namespace lumctl {

namespace {

constexpr int kOther = -1;

struct ResultRow {
    int32_t id;
    int result;  // 0..255, or kOther
    const char* word;
};

const ResultRow kResults[] = {
    {LUM_TV_EVT_STORAGE_CREATE_DIR, 0, "created or exists"},
    {LUM_TV_EVT_STORAGE_CREATE_DIR, 1, "not enough input"},
    {LUM_TV_EVT_STORAGE_CREATE_DIR, 2, "mkdir failed"},
    {LUM_TV_EVT_STORAGE_CREATE_DIR, kOther, "created, but touch failed"},
    {LUM_TV_EVT_STORAGE_DELETE_DIR, 0, "removed"},
    {LUM_TV_EVT_STORAGE_DELETE_DIR, 1, "not enough input or bad mode"},
    {LUM_TV_EVT_STORAGE_DELETE_DIR, 2, "rmdir or rm -rf failed"},
    {LUM_TV_EVT_STORAGE_DELETE_DIR, kOther, "failed"},
    {LUM_TV_EVT_STORAGE_DELETE_FILE, 0, "removed"},
    {LUM_TV_EVT_STORAGE_DELETE_FILE, 1, "not enough input"},
    {LUM_TV_EVT_STORAGE_DELETE_FILE, 2, "protected"},
    {LUM_TV_EVT_STORAGE_DELETE_FILE, 3, "rm failed"},
    {LUM_TV_EVT_STORAGE_DELETE_FILE, kOther, "failed"},
    {LUM_TV_EVT_STORAGE_SET_PROTECTED, 0, "done"},
    {LUM_TV_EVT_STORAGE_SET_PROTECTED, 1, "bad mode byte"},
    {LUM_TV_EVT_STORAGE_SET_PROTECTED, 2, "chmod failed"},
    {LUM_TV_EVT_STORAGE_SET_PROTECTED, kOther, "failed"},
    {LUM_TV_EVT_STORAGE_COPY, 0, "done"},
    {LUM_TV_EVT_STORAGE_COPY, 1, "refused, cancelled, failed walk or disk full"},
    {LUM_TV_EVT_STORAGE_COPY, 5, "busy: another copy is running"},
    {LUM_TV_EVT_STORAGE_COPY, 6, "failed with 8"},
    {LUM_TV_EVT_STORAGE_COPY, 13, "destination protected"},
    {LUM_TV_EVT_STORAGE_COPY, 255, "source not a directory or destination exists"},
    {LUM_TV_EVT_STORAGE_COPY, kOther, "cp failed"},
    {LUM_TV_EVT_STORAGE_RENAME_FILE, 0, "done"},
    {LUM_TV_EVT_STORAGE_RENAME_FILE, 2, "destination protected"},
    {LUM_TV_EVT_STORAGE_RENAME_FILE, 3, "failed"},
    {LUM_TV_EVT_STORAGE_RENAME_FILE, kOther, "failed"},
    {LUM_TV_EVT_STORAGE_MOVE_FILE, 0, "done"},
    {LUM_TV_EVT_STORAGE_MOVE_FILE, 3, "failed"},
    {LUM_TV_EVT_STORAGE_MOVE_FILE, kOther, "failed"},
    {LUM_TV_EVT_STORAGE_WRITE_FILE, 0, "written"},
    {LUM_TV_EVT_STORAGE_WRITE_FILE, 1, "not enough input data"},
    {LUM_TV_EVT_STORAGE_WRITE_FILE, 2, "protected and not made writable"},
    {LUM_TV_EVT_STORAGE_WRITE_FILE, 3, "failed"},
    {LUM_TV_EVT_STORAGE_WRITE_FILE, kOther, "failed"},
};

}  // namespace

bool is_result_event(int32_t id)
{
    for (const ResultRow& row : kResults) {
        if (row.id == id)
            return true;
    }
    return false;
}

const char* result_word(int32_t id, uint8_t result)
{
    const char* other = nullptr;
    for (const ResultRow& row : kResults) {
        if (row.id == id && row.result == result)
            return row.word;
        if (row.id == id && row.result == kOther)
            other = row.word;
    }
    return other;
}

size_t decode_result_event(int32_t id, const uint8_t* data, size_t len, Decoded* out)
{
    const char* word = result_word(id, len > 0 ? data[0] : 0);
    if (len == 0 || word == nullptr)
        return 0;
    add_uint(out, "result", data[0]);
    out->fields.back().text += std::string(" (") + word + ")";
    return 1;
}

size_t decode_out_of_space(const uint8_t* data, size_t len, Decoded* out)
{
    if (len == 0)
        return 0;
    add_uint(out, "command", data[0]);
    if (data[0] == (LUM_TV_EVT_STORAGE_COPY & 0xFF))
        out->fields.back().text += " (copy)";
    return 1;
}

}  // namespace lumctl
