// docs/wire-formats.md against lumstoragectl: every request dump there must
// be the bytes lumstoragectl builds for it, and every event and reply dump
// must decode, whole, to the JSON shown below it. The dumps were captured
// from the service on the simulated television; a layout that changes on
// either side makes its example fail here.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <StorageModuleCmd.h>
#include <binder/Parcel.h>

#include "lumctl/cmd_table.h"
#include "lumctl/event_decoders.h"
#include "lumctl/file_requests.h"
#include "lumctl/listing.h"
#include "lumctl/reply_decode.h"
#include "lumctl/request_build.h"

namespace {

using lumctl::Bytes;

struct Example {
    std::vector<std::string> info;  // "event", "DEV_MOUNT" ...
    Bytes bytes;
    std::string json;  // the line of the json block behind it, if any
    int line = 0;
};

std::vector<std::string> words_of(const std::string& text)
{
    std::vector<std::string> words;
    std::istringstream in(text);
    std::string w;
    while (in >> w)
        words.push_back(w);
    return words;
}

// The bytes of a dump in the form of hexdump -C: "OFFSET  xx xx ... |text|"
// lines, "*" for lines equal to the one before, the length last.
bool parse_dump(const std::vector<std::string>& lines, Bytes* out)
{
    Bytes last;
    bool repeat = false;
    for (const std::string& line : lines) {
        if (line == "*") {
            repeat = true;
            continue;
        }
        std::vector<std::string> words = words_of(line.substr(0, line.find('|')));
        if (words.empty() || words[0].size() != 8)
            return false;
        size_t offset = std::stoul(words[0], nullptr, 16);
        while (repeat && out->size() < offset)
            out->insert(out->end(), last.begin(), last.end());
        repeat = false;
        if (out->size() != offset)
            return false;
        last.clear();
        for (size_t i = 1; i < words.size(); ++i)
            last.push_back(static_cast<uint8_t>(std::stoul(words[i], nullptr, 16)));
        out->insert(out->end(), last.begin(), last.end());
    }
    return !lines.empty() && words_of(lines.back()).size() == 1;
}

std::vector<Example> examples()
{
    std::ifstream in(LUM_DOCS_DIR "/wire-formats.md");
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    std::vector<Example> out;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].compare(0, 7, "```hex ") != 0)
            continue;
        Example ex;
        ex.line = static_cast<int>(i + 1);
        ex.info = words_of(lines[i].substr(7));
        std::vector<std::string> dump;
        for (++i; i < lines.size() && lines[i] != "```"; ++i)
            dump.push_back(lines[i]);
        EXPECT_TRUE(parse_dump(dump, &ex.bytes)) << "dump at line " << ex.line;
        if (i + 2 < lines.size() && lines[i + 1] == "```json")
            ex.json = lines[i + 2];
        out.push_back(ex);
    }
    return out;
}

int32_t event_id(const std::string& name)
{
    for (int32_t id = 1507329; id <= 1507367; ++id) {
        if (lumctl::event_name(id) != nullptr && lumctl::event_name(id) == "LUM_TV_EVT_STORAGE_" + name)
            return id;
    }
    return -1;
}

// ls [--filter N] [--no-tags] [--id N] PATH, as lumstoragectl ls builds it.
int build_ls(const std::vector<std::string>& w, Bytes* out, std::string* error)
{
    int filter = -1;
    bool no_tags = false;
    uint16_t id = 0;
    std::string path;
    for (size_t i = 1; i < w.size(); ++i) {
        if (w[i] == "--filter")
            filter = std::atoi(w[++i].c_str());
        else if (w[i] == "--no-tags")
            no_tags = true;
        else if (w[i] == "--id")
            id = static_cast<uint16_t>(std::atoi(w[++i].c_str()));
        else
            path = w[i];
    }
    int flags = lumctl::kListingNoFlags;
    if (filter >= 0 || no_tags)
        flags = (filter >= 0 ? filter : 1) | (no_tags ? lumctl::kListingNoTags : 0);
    return lumctl::build_listing_request(path, flags, id, out, error);
}

// A STORAGE_COPY request with its block, read as the service's hub reads
// it: pPath, len, then len bytes (1 to 1024) that arrived whole with their
// padding and begin with pPath and its NUL. A block the hub would refuse
// never reaches the copy engine, whatever the example says about it.
void expect_copy_block_taken(const Bytes& bytes)
{
    android::Parcel p;
    ASSERT_EQ(android::OK, p.setData(bytes.data(), bytes.size()));
    p.setDataPosition(0);
    ASSERT_EQ(STORAGE_COPY, p.readInt32());
    const char* path = p.readCString();
    ASSERT_NE(nullptr, path);
    const std::string text(path);
    const int32_t len = p.readInt32();
    ASSERT_GE(len, static_cast<int32_t>(text.size() + 1));
    ASSERT_LE(len, 1024);
    Bytes block(static_cast<size_t>(len));
    ASSERT_EQ(android::OK, p.read(block.data(), block.size())) << "the block or its padding is missing";
    EXPECT_EQ(0u, p.dataAvail());
    EXPECT_EQ(0, memcmp(block.data(), text.c_str(), text.size() + 1));
}

// The request lumstoragectl sends for the words: a subcommand with its own
// builder, or a command and its fields.
int build(const std::vector<std::string>& w, Bytes* out, std::string* error)
{
    const bool rec = w.size() > 1 && w[1] == "--recording";
    const size_t at = rec ? 2 : 1;
    if (w[0] == "ls")
        return build_ls(w, out, error);
    if (w[0] == "raw") {
        // raw COMMAND TYPE:VALUE...: the bytes exactly as given.
        const lumctl::CmdRow* row = w.size() > 1 ? lumctl::cmd_find(w[1].c_str()) : nullptr;
        if (row == nullptr) {
            *error = "raw wants a command name";
            return -1;
        }
        return lumctl::build_raw_request(row->value, std::vector<std::string>(w.begin() + 2, w.end()), out, error);
    }
    if (w[0] == "cp")
        return lumctl::build_copy(w[at], w[at + 1], rec ? lumctl::kCopyRecording : lumctl::kCopyPlain, out, error);
    if (w[0] == "rm")
        return lumctl::build_delete_file(w[at], rec, out, error);
    if (w[0] == "protect" || w[0] == "unprotect")
        return lumctl::build_set_protected(w[1], w[0] == "protect", out, error);
    if (w[0] == "write")
        return lumctl::build_write_file(w[1], Bytes(w[2].begin(), w[2].end()), out, error);
    if (w[0] == "mv" || w[0] == "rename")
        return lumctl::build_packed_paths(w[0] == "mv" ? STROAGE_LUM_MOVE : STORAGE_RENAME_FILE, w[at], w[at + 1], rec,
                                          out, error);
    const lumctl::CmdRow* row = lumctl::cmd_find(w[0].c_str());
    if (row == nullptr) {
        *error = "no command " + w[0];
        return -1;
    }
    return lumctl::build_request(*row, std::vector<std::string>(w.begin() + 1, w.end()), out, error);
}

TEST(WireDoc, EveryExampleMatchesWhatTheClientBuildsAndDecodes)
{
    std::vector<Example> all = examples();
    size_t requests = 0, replies = 0, events = 0;
    for (const Example& ex : all) {
        SCOPED_TRACE("wire-formats.md line " + std::to_string(ex.line));
        ASSERT_GE(ex.info.size(), 2u);
        const std::string& kind = ex.info[0];
        if (kind == "request") {
            Bytes built;
            std::string error;
            ASSERT_EQ(0, build(std::vector<std::string>(ex.info.begin() + 1, ex.info.end()), &built, &error)) << error;
            EXPECT_EQ(built, ex.bytes);
            if (ex.bytes.size() >= 4 && ex.bytes[0] + (ex.bytes[1] << 8) == STORAGE_COPY && ex.bytes[2] == 0 &&
                ex.bytes[3] == 0)
                expect_copy_block_taken(ex.bytes);
            ++requests;
            continue;
        }
        lumctl::Decoded decoded;
        if (kind == "reply") {
            const lumctl::CmdRow* row = lumctl::cmd_find(ex.info[1].c_str());
            ASSERT_NE(nullptr, row) << ex.info[1];
            decoded = lumctl::decode_reply(row->reply, ex.bytes.data(), ex.bytes.size());
            ++replies;
        } else {
            ASSERT_EQ("event", kind);
            int32_t id = event_id(ex.info[1]);
            ASSERT_GT(id, 0) << ex.info[1];
            decoded = lumctl::decode_event(id, ex.bytes.data(), ex.bytes.size());
            ++events;
        }
        EXPECT_TRUE(decoded.complete);
        EXPECT_TRUE(decoded.rest.empty()) << decoded.rest.size() << " bytes left";
        EXPECT_EQ(ex.json, lumctl::json_line(lumctl::fields_json(decoded)));
    }
    // Every family has its examples.
    EXPECT_GE(requests, 9u);
    EXPECT_GE(replies, 4u);
    EXPECT_GE(events, 20u);
    for (const char* name : {"DEV_MOUNT", "DEV_UMOUNT", "GET_STORAGE_VOLUMES", "GET_DEV_TABLE", "GET_DEV_INFO",
                             "HDD_GET_SIZE", "GET_ALLOCATE_BYTES", "GET_UUID_FOR_PATH", "PVR_DEV_CHANGE", "PVR_MARK",
                             "DISCONNECT", "FORMAT", "SET_ALL_PARTITION", "DEV_BENCHMARK", "READ_DIRS",
                             "EXTRACT_COVER", "SET_PROTECTED", "OUT_OF_SPACE", "DEV_MOUNT_END"}) {
        bool found = false;
        for (const Example& ex : all)
            found = found || (ex.info[0] == "event" && ex.info[1] == name);
        EXPECT_TRUE(found) << name;
    }
}

}  // namespace
