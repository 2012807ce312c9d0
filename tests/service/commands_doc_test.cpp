// docs/commands.md against the code: one row per command code with the name
// of the command list, the road and signal of the hub's row, the record
// fields the posted rows fill, the request letters and reply token of the
// command list, and event names that exist. A row that no longer says what
// the code does fails here.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <binder/Parcel.h>

#include "SignalNo.h"
#include "StorageCmdList.h"
#include "StorageCmdTable.h"
#include "StorageEventList.h"

namespace {

struct ListRow {
    const char* name;
    const char* request;
    const char* reply;
};

std::map<int, ListRow> command_list()
{
    std::map<int, ListRow> rows;
#define COMMAND_ROW(name, value, request, reply) rows[value] = ListRow{#name, request, reply};
    LUM_STORAGE_CMD_LIST(COMMAND_ROW)
#undef COMMAND_ROW
    return rows;
}

std::set<std::string> event_names()
{
    std::set<std::string> names;
#define EVENT_NAME(name, value) names.insert(#name);
    LUM_STORAGE_EVENT_LIST(EVENT_NAME)
#undef EVENT_NAME
    return names;
}

std::string trim(const std::string& text)
{
    size_t begin = text.find_first_not_of(' ');
    return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(' ') - begin + 1);
}

// The table's rows by code: the cells between the bars, trimmed.
std::map<int, std::vector<std::vector<std::string>>> doc_rows()
{
    std::ifstream in(LUM_DOCS_DIR "/commands.md");
    std::map<int, std::vector<std::vector<std::string>>> rows;
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, 3, "| 4") != 0)
            continue;
        std::vector<std::string> cells;
        std::stringstream split(line.substr(1));
        std::string cell;
        while (std::getline(split, cell, '|'))
            cells.push_back(trim(cell));
        rows[std::stoi(cells[0])].push_back(cells);
    }
    return rows;
}

// The texts between backquotes, each with whether it stands inside [...].
std::vector<std::pair<std::string, bool>> quoted(const std::string& cell)
{
    std::vector<std::pair<std::string, bool>> out;
    int depth = 0;
    for (size_t i = 0; i < cell.size(); ++i) {
        if (cell[i] == '[')
            ++depth;
        else if (cell[i] == ']')
            --depth;
        else if (cell[i] == '`') {
            size_t end = cell.find('`', i + 1);
            out.emplace_back(cell.substr(i + 1, end - i - 1), depth > 0);
            i = end;
        }
    }
    return out;
}

// The record fields a posted row's field letters fill.
std::set<std::string> record_fields(const char* fields)
{
    static const std::map<char, std::string> kField = {{'1', "buf1"}, {'f', "buf1"},       {'2', "buf2"},
                                                       {'i', "intValue1"}, {'t', "intValue1"}, {'b', "boolValue1"},
                                                       {'w', "ushortValue1"}, {'c', "buf1[0]"}};
    std::set<std::string> out;
    for (const char* f = fields; *f != '\0'; ++f)
        out.insert(kField.at(*f));
    return out;
}

std::string road_of(const SCmdRow* row)
{
    if (row == nullptr)
        return "not handled";
    if (row->road == CMD_ROAD_CALL)
        return "direct";
    std::string road = std::string("posted `") + GetSignalIdNamePtr(static_cast<SignalIds>(row->signal)) + "`";
    return (row->flags & CMD_POST_NO_PAYLOAD) != 0 ? road + ", no record" : road;
}

// What a constant row answers: false, whatever the request.
bool answers_false(const SCmdRow& row)
{
    android::Parcel request, reply;
    row.call(request, &reply);
    return reply.dataSize() == 4 && reply.data()[0] == 0 && reply.data()[1] == 0;
}

TEST(CommandsDoc, EveryCodeHasOneRowThatMatchesTheCode)
{
    const std::map<int, ListRow> list = command_list();
    const std::set<std::string> events = event_names();
    auto rows = doc_rows();
    ASSERT_EQ(60u, list.size());
    const SCmdRow* encrypted = find_cmd_row(STORAGE_IS_ENCRYPTED);
    ASSERT_TRUE(encrypted != nullptr && encrypted->road == CMD_ROAD_CALL);
    ASSERT_TRUE(answers_false(*encrypted));
    const cmd_call_t constant_call = encrypted->call;
    EXPECT_EQ(list.size(), rows.size()) << "rows for codes outside the list";
    for (const auto& [code, item] : list) {
        SCOPED_TRACE(item.name);
        ASSERT_EQ(1u, rows[code].size()) << "one row for " << code;
        const std::vector<std::string>& cells = rows[code][0];
        ASSERT_EQ(7u, cells.size());
        EXPECT_EQ(std::string("`") + item.name + "`", cells[1]);

        const SCmdRow* row = find_cmd_row(code);
        const std::string& road = cells[2];
        // The constant rows share one function, which answers false.
        const bool constant = row != nullptr && row->road == CMD_ROAD_CALL && row->call == constant_call;
        EXPECT_EQ(constant ? "constant" : road_of(row), road);

        std::string letters;
        std::set<std::string> fields;
        for (const auto& [text, optional] : quoted(cells[3])) {
            if (text.size() == 1 && !optional)
                letters += text;
            if (text == "buf1" || text == "buf2" || text == "intValue1" || text == "boolValue1" ||
                text == "ushortValue1" || text == "buf1[0]")
                fields.insert(text);
        }
        EXPECT_EQ(item.request, letters) << cells[3];
        if (row != nullptr && row->road == CMD_ROAD_POST)
            EXPECT_EQ(record_fields(row->fields), fields) << cells[3];
        else
            EXPECT_TRUE(fields.empty()) << cells[3];

        auto reply = quoted(cells[4]);
        ASSERT_FALSE(reply.empty()) << cells[4];
        EXPECT_EQ(item.reply[0] != '\0' ? item.reply : "-", reply[0].first);

        for (const auto& [text, optional] : quoted(cells[5])) {
            if (text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ_") == std::string::npos) {
                EXPECT_EQ(1u, events.count("LUM_TV_EVT_STORAGE_" + text)) << text;
            }
        }
    }
}

TEST(CommandsDoc, EventNamesOutsideTheTableExist)
{
    const std::set<std::string> events = event_names();
    std::ifstream in(LUM_DOCS_DIR "/commands.md");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t at = text.find("## Events sent without a request");
    ASSERT_NE(std::string::npos, at);
    size_t named = 0;
    for (const auto& [word, optional] : quoted(text.substr(at))) {
        if (word.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ_") != std::string::npos)
            continue;
        EXPECT_EQ(1u, events.count("LUM_TV_EVT_STORAGE_" + word)) << word;
        ++named;
    }
    EXPECT_GE(named, 15u);
}

}  // namespace
