// Reply decoding by token, event decoding, and the text and JSON output
// built from them, including replies that end early.
#include <gtest/gtest.h>

#include <StorageEvents.h>
#include <StorageFormatInfo.h>
#include <cstring>

#include <nlohmann/json.hpp>
#include "lumctl/ctl.h"
#include "lumctl/event_decoders.h"
#include "lumctl/reply_decode.h"

namespace {

using Bytes = std::vector<uint8_t>;

// "name=text;..." of the fields.
std::string summary(const lumctl::Decoded& d)
{
    std::string out;
    for (const lumctl::Field& f : d.fields)
        out += f.name + "=" + f.text + ";";
    return out;
}

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

const Bytes kMinus1 = {0xff, 0xff, 0xff, 0xff};
const Bytes kThree = {3, 0, 0, 0};

struct ReplyCase {
    const char* token;
    Bytes bytes;
    const char* fields;
    bool complete;
    size_t rest;
};

std::vector<ReplyCase> reply_cases()
{
    Bytes guide = cat({{0, 0, 0, 0}, Bytes(lumctl::kGuideRecordBytes, 0xab)});
    return {
        {"", {}, "", true, 0},
        {"", {1, 0, 0, 0}, "", true, 4},
        {"b", {1, 0, 0, 0}, "value=true;", true, 0},
        {"b", {0, 0, 0, 0, 9}, "value=false;", true, 1},
        {"b", {5, 0, 0, 0}, "value=true (5);", true, 0},
        {"b", {}, "", false, 0},
        {"b", {1, 0}, "", false, 2},
        {"s", {'a', 'b', 'c', 0}, "value=\"abc\";", true, 0},
        {"s", {'a', 0xff, '"', 0}, "value=\"a\\xff\\x22\";", true, 0},
        {"s", {'a', 'b', 'c', 'd'}, "", false, 4},
        {"l", {0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, "value=-2;", true, 0},
        {"l", {1, 2, 3, 4}, "", false, 4},
        {"u", kMinus1, "value=4294967295;", true, 0},
        {"i", kMinus1, "value=-1;", true, 0},
        {"i>s", cat({kThree, {'a', 'b', 'c', 0}}), "value=3;text=\"abc\";", true, 0},
        {"i>s", {0, 0, 0, 0}, "value=0;", true, 0},
        {"i>s", kThree, "value=3;", false, 0},
        {"i<i", cat({kMinus1, {2, 0, 0, 0}}), "value=-1;errno=2;", true, 0},
        {"i<i", kThree, "value=3;", true, 0},
        {"i<i", kMinus1, "value=-1;", false, 0},
        {"iG", guide, nullptr, true, 0},
        {"iG", cat({{0, 0, 0, 0}, Bytes(100, 1)}), "value=0;", false, 100},
        {"R", cat({kThree, kThree, {'a', 'b', 'c', 0}}), "count=3;length=3;data=3 bytes: 61 62 63;", true, 0},
        {"R", cat({kMinus1, {5, 0, 0, 0}}), "count=-1;errno=5;", true, 0},
        {"R", cat({kThree, kThree, {'a'}}), "count=3;length=3;", false, 1},
        {"R", cat({kThree, {0xf9, 0xff, 0xff, 0xff}}), "count=3;length=-7;", false, 0},
        {"R", {}, "", false, 0},
        {nullptr, {1, 2, 3}, "", true, 3},
    };
}

TEST(CtlReply, EveryTokenDecodesFullShortAndOverlongReplies)
{
    for (const ReplyCase& c : reply_cases()) {
        SCOPED_TRACE(std::string("token ") + (c.token ? c.token : "(none)") + ", " +
                     std::to_string(c.bytes.size()) + " bytes");
        lumctl::Decoded d = lumctl::decode_reply(c.token, c.bytes.data(), c.bytes.size());
        if (c.fields != nullptr) {
            EXPECT_EQ(c.fields, summary(d));
        }
        EXPECT_EQ(c.complete, d.complete);
        EXPECT_EQ(c.rest, d.rest.size());
        if (c.rest > 0) {
            EXPECT_TRUE(std::equal(d.rest.begin(), d.rest.end(), c.bytes.end() - static_cast<long>(c.rest)));
        }
    }
    Bytes guide = cat({{0, 0, 0, 0}, Bytes(lumctl::kGuideRecordBytes, 0xab)});
    lumctl::Decoded d = lumctl::decode_reply("iG", guide.data(), guide.size());
    ASSERT_EQ(2u, d.fields.size());
    EXPECT_EQ(2 * lumctl::kGuideRecordBytes, d.fields[1].json.get_ref<const std::string&>().size());
}

Bytes format_event(const char* dev, unsigned int result, size_t len = sizeof(SStorageFormatInfo))
{
    SStorageFormatInfo info;
    memset(&info, 0, sizeof(info));
    memcpy(info.devName, dev, strnlen(dev, sizeof(info.devName)));
    info.result = result;
    Bytes out(reinterpret_cast<uint8_t*>(&info), reinterpret_cast<uint8_t*>(&info) + sizeof(info));
    out.resize(len, 0x5a);
    return out;
}

TEST(CtlEvent, DecodersByIdWithHexForTheRest)
{
    Bytes ok = format_event("sda1", 0);
    EXPECT_EQ("devName=\"sda1\";result=0;", summary(lumctl::decode_event(LUM_TV_EVT_STORAGE_FORMAT, ok.data(), ok.size())));
    Bytes busy = format_event("sdb", STORAGE_FORMAT_RESULT_BUSY);
    EXPECT_EQ("devName=\"sdb\";result=-2 (busy);",
              summary(lumctl::decode_event(LUM_TV_EVT_STORAGE_FORMAT, busy.data(), busy.size())));
    // devName without a NUL stops at its 30 bytes.
    Bytes full = format_event("abcdefghijklmnopqrstuvwxyz0123456789", 7);
    lumctl::Decoded d = lumctl::decode_event(LUM_TV_EVT_STORAGE_FORMAT, full.data(), full.size());
    EXPECT_EQ("devName=\"abcdefghijklmnopqrstuvwxyz0123\";result=7;", summary(d));
    Bytes longer = format_event("sda1", 0, 40);
    d = lumctl::decode_event(LUM_TV_EVT_STORAGE_FORMAT, longer.data(), longer.size());
    EXPECT_TRUE(d.complete);
    EXPECT_EQ(4u, d.rest.size());
    Bytes shorter = format_event("sda1", 0, 10);
    d = lumctl::decode_event(LUM_TV_EVT_STORAGE_FORMAT, shorter.data(), shorter.size());
    EXPECT_FALSE(d.complete);
    EXPECT_TRUE(d.fields.empty());
    EXPECT_EQ(shorter, d.rest);
    Bytes other = {1, 2, 0xff};
    EXPECT_EQ("hex=3 bytes: 01 02 ff;", summary(lumctl::decode_event(LUM_TV_EVT_STORAGE_MKDIRS, other.data(), other.size())));
    EXPECT_EQ("hex=0 bytes;", summary(lumctl::decode_event(LUM_TV_EVT_STORAGE_MKDIRS, nullptr, 0)));
}

TEST(CtlEvent, ResultBytesDecodeToTheirWords)
{
    struct Case {
        int32_t id;
        uint8_t result;
        const char* fields;  // as watch shows them
    };
    const Case cases[] = {
        {LUM_TV_EVT_STORAGE_CREATE_DIR, 0, "result=0 (created or exists);"},
        {LUM_TV_EVT_STORAGE_CREATE_DIR, 9, "result=9 (created, but touch failed);"},
        {LUM_TV_EVT_STORAGE_DELETE_DIR, 2, "result=2 (rmdir or rm -rf failed);"},
        {LUM_TV_EVT_STORAGE_DELETE_DIR, 7, "result=7 (failed);"},
        {LUM_TV_EVT_STORAGE_DELETE_FILE, 2, "result=2 (protected);"},
        {LUM_TV_EVT_STORAGE_SET_PROTECTED, 1, "result=1 (bad mode byte);"},
        {LUM_TV_EVT_STORAGE_COPY, 5, "result=5 (busy: another copy is running);"},
        {LUM_TV_EVT_STORAGE_COPY, 255, "result=255 (source not a directory or destination exists);"},
        {LUM_TV_EVT_STORAGE_COPY, 28, "result=28 (cp failed);"},
        {LUM_TV_EVT_STORAGE_RENAME_FILE, 2, "result=2 (destination protected);"},
        {LUM_TV_EVT_STORAGE_MOVE_FILE, 3, "result=3 (failed);"},
        {LUM_TV_EVT_STORAGE_WRITE_FILE, 1, "result=1 (not enough input data);"},
        {LUM_TV_EVT_STORAGE_OUT_OF_SPACE, 0x11, "command=17 (copy);"},
    };
    for (const Case& c : cases) {
        lumctl::Decoded d = lumctl::decode_event(c.id, &c.result, 1);
        EXPECT_EQ(c.fields, summary(d)) << c.id;
        EXPECT_TRUE(d.complete && d.rest.empty()) << c.id;
        // JSON keeps the number alone.
        EXPECT_EQ("{\"" + d.fields[0].name + "\":" + std::to_string(c.result) + "}", lumctl::json_line(lumctl::fields_json(d)));
    }
    // An empty payload is short; bytes behind the result are kept.
    EXPECT_FALSE(lumctl::decode_event(LUM_TV_EVT_STORAGE_COPY, nullptr, 0).complete);
    const Bytes two = {0, 7};
    EXPECT_EQ(Bytes{7}, lumctl::decode_event(LUM_TV_EVT_STORAGE_MOVE_FILE, two.data(), two.size()).rest);
}

// Output of one print call, through a memory stream.
template <typename Fn>
std::string capture(bool json, Fn fn)
{
    char* buf = nullptr;
    size_t len = 0;
    FILE* mem = open_memstream(&buf, &len);
    lumctl::CtlContext ctx;
    ctx.json = json;
    ctx.out = mem;
    ctx.err = mem;
    fn(ctx);
    fclose(mem);
    std::string out(buf, len);
    free(buf);
    return out;
}

TEST(CtlOutput, JsonIsValidForEveryReplyAndEvent)
{
    size_t count = 0;
    const lumctl::CmdRow* rows = lumctl::cmd_rows(&count);
    for (const ReplyCase& c : reply_cases()) {
        lumctl::CtlReply reply{-1, c.bytes};
        // A row with this token, or none for the unknown-token case.
        const lumctl::CmdRow* row = nullptr;
        for (size_t i = 0; i < count && c.token != nullptr; ++i) {
            if (strcmp(rows[i].reply, c.token) == 0)
                row = &rows[i];
        }
        std::string json = capture(true, [&](const lumctl::CtlContext& ctx) {
            lumctl::print_reply(ctx, row, row ? row->value : 77, reply);
        });
        EXPECT_TRUE(nlohmann::json::accept(json)) << json.substr(0, 300);
        std::string text = capture(false, [&](const lumctl::CtlContext& ctx) {
            lumctl::print_reply(ctx, row, row ? row->value : 77, reply);
        });
        EXPECT_EQ(!c.complete, text.find("ends early") != std::string::npos) << text;
    }
    Bytes weird = {'\n', 0x01, '"', '\\', 0xc3, 0xa9, 0xff, 0xe2, 0x82, 0};
    lumctl::CtlReply reply{0, weird};
    std::string json = capture(true, [&](const lumctl::CtlContext& ctx) {
        lumctl::print_reply(ctx, lumctl::cmd_find("partition-fs-type"), 4117, reply);
    });
    // Not UTF-8: U+FFFD for each bad byte, and every byte in valueHex.
    const nlohmann::json parsed = nlohmann::json::parse(json, nullptr, false);
    ASSERT_FALSE(parsed.is_discarded()) << json;
    EXPECT_EQ("\n\x01\"\\\xc3\xa9\xef\xbf\xbd\xef\xbf\xbd", parsed["reply"]["value"]) << json;
    EXPECT_EQ("0a01225cc3a9ffe282", parsed["reply"]["valueHex"]) << json;

    Bytes fmt = format_event("s\xff\x01", 0);
    for (const lumctl::CtlEvent& ev : {lumctl::CtlEvent{false, 0, LUM_TV_EVT_STORAGE_FORMAT, fmt},
                                       lumctl::CtlEvent{false, 0, 42, Bytes{1, 2}},
                                       lumctl::CtlEvent{true, 17, 0, Bytes{}}}) {
        json = capture(true, [&](const lumctl::CtlContext& ctx) { lumctl::print_event(ctx, ev); });
        EXPECT_TRUE(nlohmann::json::accept(json)) << json;
    }
    json = capture(true, [&](const lumctl::CtlContext& ctx) { lumctl::run_list(ctx, {}); });
    EXPECT_TRUE(nlohmann::json::accept(json));
}

}  // namespace

TEST(CtlQuoted, Utf8StaysOtherBytesAreEscaped)
{
    const char text[] = "\xe4\xb8\xad\xe6\x96\x87 \xd6\xd0\xce\xc4\"\\";
    EXPECT_EQ(lumctl::quoted(text, sizeof(text) - 1),
              "\"\xe4\xb8\xad\xe6\x96\x87 \\xd6\\xd0\\xce\\xc4\\x22\\x5c\"");
    const char overlong[] = "\xc0\x80\xed\xa0\x80";
    EXPECT_EQ(lumctl::quoted(overlong, sizeof(overlong) - 1), "\"\\xc0\\x80\\xed\\xa0\\x80\"");
}
