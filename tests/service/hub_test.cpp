#include <cstring>
#include <sys/stat.h>

#include <cutils/properties.h>
#include <norvfw/testing.h>

#include "SignalNo.h"
#include "test_support.h"

namespace {
using android::Parcel;

Bytes bytes_of(const Parcel& p) { return Bytes(p.data(), p.data() + p.dataSize()); }

int invoke(int word, Parcel* reply, void (*more)(Parcel*) = nullptr, size_t* endPos = nullptr)
{
    Parcel request;
    request.writeInt32(word);
    if (more != nullptr)
        more(&request);
    request.setDataPosition(0);
    int rc = StorageModuleHub::self()->invoke(request, reply);
    if (endPos != nullptr)
        *endPos = request.dataPosition();
    return rc;
}

}  // namespace

TEST(Hub, UnknownGroupGetsMinusOneAndAnEmptyReply)
{
    Parcel reply;
    size_t end = 0;
    EXPECT_EQ(invoke(0x2001, &reply, nullptr, &end), -1);
    EXPECT_EQ(reply.dataSize(), 0u);
    EXPECT_EQ(end, 4u);  // behind the command word
    Parcel empty, reply2;
    EXPECT_EQ(StorageModuleHub::self()->invoke(empty, &reply2), -1);
    EXPECT_EQ(StorageModuleHub::self()->invoke(empty, nullptr), -1);
}

TEST(Hub, CodesWithoutARowAreWarnedAboutAndAnswerNothing)
{
    for (int code : {0x1fff, 4097, 4098, 4100, 4103, 4104, 4156, 0x1000}) {
        LogCapture log;
        Parcel reply;
        EXPECT_EQ(invoke(code, &reply), 0) << code;
        EXPECT_EQ(reply.dataSize(), 0u) << code;
        EXPECT_TRUE(log.has("No this option [" + std::to_string(code) + "]!")) << code;
    }
}

TEST(Hub, ConstantRowsAnswerFalseAndReadNothingMore)
{
    for (int code : {4108, 4115, 4116, 4118, 4119, 4120, 4121, 4122}) {
        Parcel reply;
        size_t end = 0;
        EXPECT_EQ(invoke(code, &reply, [](Parcel* p) { p->writeCString("/dev/sdb1"); }, &end), 0);
        EXPECT_EQ(bytes_of(reply), kFalse) << code;
        EXPECT_EQ(end, 4u) << code;
    }
}

TEST(Hub, SizeLimitIsWrittenOnlyWhenRecordingIsOnAndTheValueIsNewAndLargeEnough)
{
    REQUIRE_ISOLATION();
    auto set = [](int32_t size) { EXPECT_EQ(Request(STORAGE_SET_PVR_DEV_SIZE_LIMIT).i(size).invoke(), Bytes{}); };
    auto get = []() { return Request(STORAGE_GET_PVR_DEV_SIZE_LIMIT).invoke(); };
    property_set("persist.pvr.rec.enable", "0");
    property_set("persist.pvr.tshift.enable", "0");
    property_set("persist.pvr.device_size_limit", "0");
    set(4000);
    EXPECT_EQ(get(), le32({0}));  // neither recording nor timeshift
    property_set("persist.pvr.tshift.enable", "1");
    set(1799);
    EXPECT_EQ(get(), le32({0}));
    set(1800);
    EXPECT_EQ(get(), le32({1800}));
    // The same value again writes nothing: the file keeps its inode.
    struct stat before, after;
    ASSERT_EQ(stat("/tmp/property/persist.pvr.device_size_limit", &before), 0);
    set(1800);
    ASSERT_EQ(stat("/tmp/property/persist.pvr.device_size_limit", &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    set(70000);
    EXPECT_EQ(get(), le32({70000}));
}

TEST(Hub, PostedRowsAnswerQueuedAndTheServiceFreesTheRecordOnce)
{
    REQUIRE_ISOLATION();
    ensure_service_queue();
    theStorageManagerService.m_hddState = HddUnknown;
    unsigned long freed = NorvMsgFreedPayloads();
    EXPECT_EQ(Request(STORAGE_START_HDD).invoke(), kTrue);
    EXPECT_EQ(NorvMsgFreedPayloads(), freed);  // in the queue, nobody freed it
    EXPECT_EQ(theStorageManagerService.ReadMsgsFromNonBlockingQueue(), 1);
    EXPECT_EQ(NorvMsgFreedPayloads(), freed + 1);
    EXPECT_EQ(theStorageManagerService.m_hddState.load(), HddNoHdd);
    Request shutdown(STORAGE_SHUTDOWN);
    shutdown.p.writeChar(1);
    EXPECT_EQ(shutdown.invoke(), kTrue);
    theStorageManagerService.ReadMsgsFromNonBlockingQueue();
    EXPECT_EQ(theStorageManagerService.m_hddState.load(), HddOff);
    EXPECT_EQ(NorvMsgFreedPayloads(), freed + 2);
}

// Rows posting into a queue of the test's own.
class PostRow : public ::testing::Test {
protected:
    void SetUp() override { REQUIRE_ISOLATION(); ASSERT_EQ(probe.Init("/lumtest_probe", 10, 0, false), 0); }
    bool Post(const SCmdRow& row, Parcel& request, bool* recordLeft = nullptr)
    {
        return post_row(row, request, probe, recordLeft);
    }
    PostProbe probe;
};

TEST_F(PostRow, FieldsLandInTheirPlaces)
{
    const SCmdRow row = {1, CMD_ROAD_POST, SIG_ID_STORAGE_COPY, "12ibw", 0, nullptr, nullptr};
    std::string text99(99, 'x');
    Parcel request;
    request.writeCString(text99.c_str());
    request.writeCString("second");
    request.writeInt32(-5);
    request.writeBool(true);
    request.writeInt64(0x123456789LL);
    request.setDataPosition(0);
    bool left = true;
    EXPECT_TRUE(Post(row, request, &left));
    EXPECT_FALSE(left);
    ASSERT_EQ(probe.ReadMsgsFromNonBlockingQueue(), 1);
    ASSERT_EQ(probe.posted.size(), 1u);
    const StorageManagerAction_t& r = probe.posted[0].record;
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(r.buf1)), text99);
    EXPECT_EQ(r.buf1[99], 0);
    EXPECT_STREQ(reinterpret_cast<const char*>(r.buf2), "second");
    EXPECT_EQ(r.intValue1, -5);
    EXPECT_TRUE(r.boolValue1);
    EXPECT_FALSE(r.boolValue2);
    EXPECT_EQ(r.ushortValue1, 0x6789);
    EXPECT_EQ(probe.posted[0].signal, static_cast<unsigned long>(SIG_ID_STORAGE_COPY));
}

TEST_F(PostRow, ListingFlagsTravelBehindThePathAndLenNeverReachesFurther)
{
    const SCmdRow* row = find_cmd_row(STORAGE_READ_DIRS);
    ASSERT_NE(row, nullptr);
    auto post = [&](const std::string& path, int32_t len, const int32_t* flags) {
        Parcel request;
        request.writeCString(path.c_str());
        request.writeInt32(len);
        request.writeInt64(0x10007);
        if (flags != nullptr)
            request.writeInt32(*flags);
        request.setDataPosition(0);
        return Post(*row, request);
    };
    const int32_t flags = 0x10B;  // only the low byte travels
    EXPECT_TRUE(post("/mnt/pvr/shared/sdb1/", 4000, nullptr));  // an old client's generous len
    EXPECT_TRUE(post("/mnt/pvr/shared/sdb1/", 21, &flags));
    std::string path98 = "/" + std::string(97, 'p');
    EXPECT_TRUE(post(path98, 0, &flags));
    EXPECT_FALSE(post(path98 + "q", 100, &flags));  // no room behind 99 bytes
    EXPECT_TRUE(post(path98 + "q", 100, nullptr));
    ASSERT_EQ(probe.ReadMsgsFromNonBlockingQueue(), 4);
    std::vector<StorageManagerAction_t> r;
    for (const Posted& p : probe.posted)
        r.push_back(p.record);
    EXPECT_EQ(r[0].intValue1, 22);
    EXPECT_EQ(r[0].buf1[22], 0);
    EXPECT_EQ(r[0].ushortValue1, 7);
    EXPECT_EQ(r[1].intValue1, 23);
    EXPECT_EQ(r[1].buf1[21], 0);
    EXPECT_EQ(r[1].buf1[22], 0x0B);
    EXPECT_EQ(r[2].intValue1, 100);
    EXPECT_EQ(r[2].buf1[98], 0);
    EXPECT_EQ(r[2].buf1[99], 0x0B);
    EXPECT_EQ(r[3].intValue1, 100);
    EXPECT_EQ(r[3].buf1[99], 0);
}

TEST_F(PostRow, MissingOrOversizedTextsPostNothingAndLeaveTheRecordToTheHub)
{
    const SCmdRow row = {7, CMD_ROAD_POST, SIG_ID_STORAGE_FORMAT, "1", 0, nullptr, nullptr};
    std::string text100(100, 'y');
    Parcel tooLong, missing, unterminated;
    tooLong.writeCString(text100.c_str());
    tooLong.setDataPosition(0);
    unterminated.write("abcd", 4);
    unterminated.setDataPosition(0);
    StorageManagerAction_t record;
    for (Parcel* request : {&tooLong, &missing, &unterminated}) {
        memset(&record, 0, sizeof(record));
        bool bFree = true;
        EXPECT_FALSE(post_cmd_row(row, *request, &record, &bFree, probe));
        EXPECT_TRUE(bFree);
    }
    bool bFree = true;
    Parcel fine;
    fine.writeCString("sdb1");
    fine.setDataPosition(0);
    EXPECT_FALSE(post_cmd_row(row, fine, nullptr, &bFree, probe));  // no memory
    EXPECT_EQ(probe.ReadMsgsFromNonBlockingQueue(), 0);
}

namespace {
StorageManagerAction_t* new_record()
{
    return static_cast<StorageManagerAction_t*>(calloc(1, sizeof(StorageManagerAction_t)));
}

void dispatch_record(unsigned long signal, StorageManagerAction_t* record)
{
    CNorvMsg msg(signal);
    if (record != nullptr)
        msg.SetSignalPtr(record, sizeof(*record));
    theStorageManagerService.ProcessNorvMsg(&msg);
}

}  // namespace

TEST(Dispatch, UnknownSignalsAreLoggedAndTheirPayloadReleased)
{
    for (unsigned long signal : {0ul, 578ul, 582ul, 604ul, 617ul, 623ul, 100000ul}) {
        LogCapture log;
        unsigned long freed = NorvMsgFreedPayloads();
        dispatch_record(signal, new_record());
        EXPECT_EQ(log.count("No this Message!"), 1) << signal;
        EXPECT_EQ(NorvMsgFreedPayloads(), freed + 1) << signal;
    }
    LogCapture log;
    dispatch_record(578, nullptr);  // no payload: nothing to release, still logged
    EXPECT_TRUE(log.has("No this Message!"));
}
