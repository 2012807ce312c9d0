// lumstoragectl's command lookup and request bytes, letter by letter.
#include <gtest/gtest.h>

#include <StorageModuleCmd.h>
#include <cstdio>
#include <cstring>

#include "lumctl/cmd_table.h"
#include "lumctl/request_build.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

TEST(CtlLookup, NamesInEveryAcceptedForm)
{
    struct Case {
        const char* word;
        int32_t want;  // 0: not found
    };
    const Case cases[] = {
        {"STORAGE_DEV_MOUNT", STORAGE_DEV_MOUNT}, {"dev-mount", STORAGE_DEV_MOUNT},
        {"DEV_MOUNT", STORAGE_DEV_MOUNT},          {"storage_dev_mount", STORAGE_DEV_MOUNT},
        {"STROAGE_LUM_OPEN", STROAGE_LUM_OPEN},    {"lum-open", STROAGE_LUM_OPEN},
        {"STORAGE_LUM_OPEN", STROAGE_LUM_OPEN},    {"4150", STROAGE_LUM_OPEN},
        {"0x1036", STROAGE_LUM_OPEN},              {"pvr-dev-state", STORAGE_PVR_DEV_STATE},
        {"nope", 0}, {"4096", 0}, {"dev--mount", 0}, {"", 0}, {"-5", 0}, {"99999999999", 0},
    };
    for (const Case& c : cases) {
        const lumctl::CmdRow* row = lumctl::cmd_find(c.word);
        EXPECT_EQ(c.want, row != nullptr ? row->value : 0) << "'" << c.word << "'";
    }
    // Every row is reached by its own name and by its short form: no two
    // rows share a short name.
    size_t count = 0;
    const lumctl::CmdRow* rows = lumctl::cmd_rows(&count);
    ASSERT_EQ(60u, count);
    for (size_t i = 0; i < count; ++i) {
        EXPECT_EQ(&rows[i], lumctl::cmd_find(rows[i].name));
        EXPECT_EQ(&rows[i], lumctl::cmd_find(rows[i].name + 8)) << rows[i].name;
    }
}

TEST(CtlRequest, EachLetterEncodesAsParcelBytes)
{
    struct Case {
        char letter;
        const char* text;
        Bytes want;
    };
    const Case cases[] = {
        {'s', "ab", {'a', 'b', 0, 0}},
        {'s', "", {0, 0, 0, 0}},
        {'s', "abcd", {'a', 'b', 'c', 'd', 0, 0, 0, 0}},
        {'i', "-1", {0xff, 0xff, 0xff, 0xff}},
        {'i', "0x10", {0x10, 0, 0, 0}},
        {'i', "-2147483648", {0, 0, 0, 0x80}},
        {'u', "4294967295", {0xff, 0xff, 0xff, 0xff}},
        {'l', "-2", {0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}},
        {'l', "0x100000000", {0, 0, 0, 0, 1, 0, 0, 0}},
        {'b', "true", {1, 0, 0, 0}},
        {'b', "1", {1, 0, 0, 0}},
        {'b', "FALSE", {0, 0, 0, 0}},
        {'c', "A", {0x41, 0, 0, 0}},
        {'c', "7", {0x37, 0, 0, 0}},
        {'c', "65", {0x41, 0, 0, 0}},
        {'c', "-1", {0xff, 0xff, 0xff, 0xff}},
    };
    for (const Case& c : cases) {
        Bytes out;
        std::string error;
        ASSERT_EQ(0, lumctl::encode_field(c.letter, c.text, &out, &error)) << c.letter << " " << c.text;
        EXPECT_EQ(c.want, out) << c.letter << " '" << c.text << "'";
    }
}

TEST(CtlRequest, BadValuesAreUsageErrors)
{
    struct Case {
        char letter;
        const char* text;
    };
    const Case cases[] = {
        {'i', "2147483648"}, {'i', "abc"}, {'i', ""}, {'i', "1.5"}, {'i', "-"},
        {'u', "-1"}, {'u', "4294967296"}, {'l', "9223372036854775808"},
        {'b', "yes"}, {'b', ""}, {'c', "256"}, {'c', ""}, {'c', "-129"}, {'q', "1"},
    };
    for (const Case& c : cases) {
        Bytes out;
        std::string error;
        EXPECT_EQ(-1, lumctl::encode_field(c.letter, c.text, &out, &error)) << c.letter << " '" << c.text << "'";
        EXPECT_FALSE(error.empty());
    }
}

Bytes build(const char* name, const std::vector<std::string>& args, int want_rc = 0)
{
    Bytes out;
    std::string error;
    EXPECT_EQ(want_rc, lumctl::build_request(*lumctl::cmd_find(name), args, &out, &error))
        << name << ": " << error;
    return out;
}

TEST(CtlRequest, CommandsBuildWholeRequests)
{
    EXPECT_EQ((Bytes{0x1d, 0x10, 0, 0}), build("pvr-dev-state", {}));
    EXPECT_EQ((Bytes{0x0d, 0x10, 0, 0, 's', 'd', 'a', '1', 0, 0, 0, 0}), build("dev-mount", {"sda1"}));
    // "sir" with "-": the byte count goes into the int32; raw bytes padded.
    EXPECT_EQ((Bytes{0x2e, 0x10, 0, 0, '/', 'x', 0, 0, 5, 0, 0, 0, 'h', 'e', 'l', 'l', 'o', 0, 0, 0}),
              build("write-file", {"/x", "-", "hello"}));
    // An explicit count is sent as given, even when it does not match.
    EXPECT_EQ((Bytes{0x2e, 0x10, 0, 0, '/', 'x', 0, 0, 3, 0, 0, 0, 'h', 'e', 'l', 'l', 'o', 0, 0, 0}),
              build("write-file", {"/x", "3", "hello"}));
    EXPECT_EQ((Bytes{0x39, 0x10, 0, 0, 7, 0, 0, 0, 2, 0, 0, 0, '@', 'a', 0, 0}),
              build("lum-write", {"7", "-", "@@a"}));
    EXPECT_EQ((Bytes{0x32, 0x10, 0, 0, '1', 0, 0, 0}), build("shutdown", {"1"}));

    hosttest::TempDir dir;
    std::string file = dir.path + "/data.bin";
    FILE* f = fopen(file.c_str(), "wb");
    ASSERT_NE(nullptr, f);
    fwrite("\x00\x01\x02", 1, 3, f);
    fclose(f);
    EXPECT_EQ((Bytes{0x39, 0x10, 0, 0, 4, 0, 0, 0, 3, 0, 0, 0, 0, 1, 2, 0}),
              build("STROAGE_LUM_WRITE", {"4", "-", "@" + file}));

    build("dev-mount", {}, -1);                       // too few
    build("dev-mount", {"a", "b"}, -1);              // too many
    build("delete-file", {"/x", "-"}, -1);           // "-" only before raw bytes
    build("write-file", {"/x", "-", "@" + dir.path + "/missing"}, -1);
}

TEST(CtlRequest, RawItemsAllowMalformedRequests)
{
    Bytes out;
    std::string error;
    ASSERT_EQ(0, lumctl::build_raw_request(4125, {"i:5", "s:foo", "l:7", "b:1", "u:3", "c:65", "x:01 02 0a"}, &out, &error))
        << error;
    Bytes want = {0x1d, 0x10, 0, 0, 5, 0, 0, 0, 'f', 'o', 'o', 0, 7, 0, 0, 0, 0, 0, 0, 0,
                  1, 0, 0, 0, 3, 0, 0, 0, 0x41, 0, 0, 0, 0x01, 0x02, 0x0a};
    EXPECT_EQ(want, out);
    // After unpadded x: bytes, later items are no longer aligned.
    ASSERT_EQ(0, lumctl::build_raw_request(1, {"x:ff", "i:1"}, &out, &error));
    EXPECT_EQ((Bytes{1, 0, 0, 0, 0xff, 1, 0, 0, 0}), out);
    for (const char* bad : {"q:1", "i5", "x:0g", "x:abc", "i:zz", ":"}) {
        EXPECT_EQ(-1, lumctl::build_raw_request(1, {bad}, &out, &error)) << bad;
    }
}

}  // namespace
