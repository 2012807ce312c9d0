// The file and primitive rows of the hub under bent requests: numbers from
// the edges of their ranges, cut-off Parcels, raw byte counts that lie. Paths
// always lie under the scratch folder and commands are harmless, so only the
// readers and the bounds are on trial: no crash, no read past the Parcel
// (AddressSanitizer builds), no file touched outside the folder.
#include "file_ops_fixture.h"

#include <climits>
#include <fcntl.h>
#include <random>

using namespace file_ops_test;

namespace {

struct SFuzzRow {
    int code;
    // One letter per field: 'p' path, 'c' command, 'i' int32, 'f' descriptor,
    // 'b' bool, 'r' raw bytes (behind their count), 'x' an optional int32.
    const char* fields;
};

const SFuzzRow kRows[] = {
    {STORAGE_DELETE_DIR, "pii"},   {STORAGE_DELETE_FILE, "pix"},   {STORAGE_RENAME_FILE, "ppb"},
    {STORAGE_CREATE_DIR, "pi"},    {STORAGE_WRITE_FILE, "pir"},    {STORAGE_LUM_EXE_SYS_CMD, "ic"},
    {STORAGE_LUM_EXE_SYS_CMD_RET, "c"}, {STORAGE_LUM_CHMOD, "pi"}, {STROAGE_LUM_OPEN, "pii"},
    {STROAGE_LUM_CLOSE, "f"},      {STROAGE_LUM_READ, "fi"},       {STROAGE_LUM_WRITE, "fir"},
    {STORAGE_LUM_SYNC, "f"},
};

const int32_t kEdges[] = {0, 1, 2, 3, 4, -1, -2, INT32_MIN, INT32_MAX, 100, 511, 512, 513, 1 << 24, (1 << 24) + 1};
const char* const kCommands[] = {"true", ": fuzz", "exit 2", "echo fuzz"};
const char kPathBytes[] = "zZ\"\\$`'; &|<>*?\n\t-%/";

class Fuzz {
public:
    Fuzz(const std::string& base, int fd) : m_base(base), m_fd(fd), m_rng(20260501) {}

    int32_t number()
    {
        return m_rng() % 3 == 0 ? static_cast<int32_t>(m_rng()) : kEdges[m_rng() % (sizeof(kEdges) / 4)];
    }
    std::string path()
    {
        std::string p = m_base + "/z";
        for (unsigned n = m_rng() % 20; n > 0; --n)
            p += kPathBytes[m_rng() % (sizeof(kPathBytes) - 1)];
        return p;
    }
    // A request for row, perhaps cut short.
    void build(const SFuzzRow& row, Request* r)
    {
        int32_t count = 0;
        for (const char* f = row.fields; *f != '\0'; ++f) {
            switch (*f) {
            case 'p': r->s(path()); break;
            case 'c': r->s(kCommands[m_rng() % 4]); break;
            case 'i': count = number(); r->i(count); break;
            case 'f': r->i(m_rng() % 3 == 0 ? -1 : (m_rng() % 3 == 0 ? 1 << 20 : m_fd)); break;
            case 'b': r->b(m_rng() % 2 == 0); break;
            case 'x': if (m_rng() % 2 == 0) r->i(number()); break;
            case 'r': r->raw(std::string(m_rng() % 64, static_cast<char>(m_rng()))); break;
            default: break;
            }
        }
        if (m_rng() % 2 == 0)
            r->p.setDataSize(4 + m_rng() % (r->p.dataSize() - 3));
    }
    unsigned pick(unsigned n) { return m_rng() % n; }

private:
    std::string m_base;
    int m_fd;
    std::mt19937 m_rng;
};

}  // namespace

TEST_F(FileOps, FileRowsSurviveBentRequests)
{
    put("canary", "alive");
    std::string scratch = at("scratch");
    int fd = open(scratch.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    Fuzz fuzz(base, fd);
    for (int round = 0; round < 1500; ++round) {
        const SFuzzRow& row = kRows[fuzz.pick(sizeof(kRows) / sizeof(kRows[0]))];
        Request request(row.code);
        fuzz.build(row, &request);
        Bytes reply = request.invoke();
        EXPECT_LE(reply.size(), static_cast<size_t>((1 << 24) + 8)) << row.code;
        if (row.code == STROAGE_LUM_OPEN && reply.size() == 4) {
            int32_t opened;
            memcpy(&opened, reply.data(), 4);
            if (opened >= 0 && opened != fd)
                close(opened);
        }
        if (fcntl(fd, F_GETFD) < 0) {  // a close row took it: the same number again
            int again = open(scratch.c_str(), O_RDWR | O_CLOEXEC);
            ASSERT_GE(again, 0);
            if (again != fd) {
                ASSERT_EQ(dup3(again, fd, O_CLOEXEC), fd);
                close(again);
            }
        }
    }
    close(fd);
    EXPECT_EQ(content("canary"), "alive");
    EXPECT_TRUE(entries("cwd").empty());
    for (const std::string& e : entries("."))
        EXPECT_TRUE(e[0] == 'z' || e == "canary" || e == "cwd" || e == "scratch") << e;
}
