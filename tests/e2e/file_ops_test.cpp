// File operations end to end: protection, recordings with their companions, tree copies, the copy engine's busy answer,
// cancel and full volume, moves inside and across volumes, and the command primitives, through lumstoragectl against
// the service on the simulated television, with real ext4, FAT and NTFS volumes on plugged sticks.
#include "rig_fixture.h"

namespace e2e {
namespace {
const std::string kFat = "/mnt/pvr/shared/sdb1";
const std::string kExt = "/mnt/pvr/shared/sdb2";
const std::string kNtfs = "/mnt/pvr/shared/sdb3";

// FAT, ext4 and NTFS on one stick.
const char* kStick =
    "disk stick size=192M table=msdos plugged=no dev=sdb\n"
    "  part size=64M fs=vfat label=FAT\n"
    "  part size=96M fs=ext4 label=EXT\n"
    "  part fs=ntfs label=NTFS\n";

const std::vector<std::string> kCompanions = {".desc", ".idx", ".idx.desc", ".xml", ".xml.sig"};

class FileOpsTest : public FileOps {
protected:
    // A recording: the main file ("rec") and the companions with these
    // suffixes ("rec" and the suffix), made inside the television.
    void Recording(const std::string& main, const std::vector<std::string>& suffixes) const
    {
        const char* script = "m=$1; shift; for s in '' \"$@\"; do printf 'rec%s' \"$s\" > \"$m$s\"; done";
        std::vector<std::string> argv{"sh", "-c", script, "sh", main};
        argv.insert(argv.end(), suffixes.begin(), suffixes.end());
        ASSERT_TRUE(In(argv).ok()) << main;
    }
    // The names of a recording's files, by its main file's name.
    static std::set<std::string> Files(const std::string& name, const std::vector<std::string>& suffixes)
    {
        std::set<std::string> names{name};
        for (const std::string& s : suffixes)
            names.insert(name + s);
        return names;
    }
    // Each file of a recording holds what Recording wrote into it.
    void ExpectRecording(const std::string& main, const std::vector<std::string>& suffixes) const
    {
        EXPECT_EQ(Cat(main), "rec");
        for (const std::string& s : suffixes)
            EXPECT_EQ(Cat(main + s), "rec" + s);
    }
};

TEST_F(FileOpsTest, ProtectedFileIsRefusedByRmCpRenameAndMoveButWriteOverwritesIt)
{
    StartService(kStick, {"stick"});
    if (HasFatalFailure())
        return;
    const std::string p = kExt + "/p.ts", other = kExt + "/other", away = kFat + "/away";
    Recording(p, {".idx"});
    Put(other, "other");
    Put(away, "away");
    ASSERT_EQ(Op({"protect", p}), 0);
    EXPECT_EQ(Mode(p), "444");
    // Whatever would remove or replace it is refused, and nothing is lost.
    EXPECT_EQ(Op({"rm", p}), 2);
    EXPECT_EQ(Op({"rm", "--recording", p}), 2);
    EXPECT_EQ(Op({"cp", other, p}), 13);
    EXPECT_EQ(Op({"rename", other, p}), 2);
    // From another volume a move copies, which the protection refuses.
    EXPECT_EQ(Op({"mv", away, p}), 3);
    ExpectRecording(p, {".idx"});
    EXPECT_EQ(Cat(other), "other");
    EXPECT_EQ(Cat(away), "away");
    EXPECT_EQ(Mode(p), "444");
    // write lifts the protection and overwrites; the file stays writable.
    EXPECT_EQ(Write(p, "fresh"), 0);
    EXPECT_EQ(Cat(p), "fresh");
    EXPECT_EQ(Mode(p), "666");
    ASSERT_EQ(Op({"protect", p}), 0);
    EXPECT_EQ(Op({"rm", p}), 2);
    EXPECT_EQ(Cat(p), "fresh");
    ASSERT_EQ(Op({"unprotect", p}), 0);
    EXPECT_EQ(Mode(p), "666");
    EXPECT_EQ(Op({"rm", p}), 0);
    EXPECT_FALSE(Here(p));
    EXPECT_EQ(Cat(p + ".idx"), "rec.idx") << "rm without --recording leaves the companions";
}

TEST_F(FileOpsTest, RecordingsKeepTheirSignatureAndTreeCopiesLeaveLinksOut)
{
    StartService(kStick, {"stick"});
    if (HasFatalFailure())
        return;
    for (const std::string& vol : {kExt, kFat}) {
        SCOPED_TRACE(vol);
        const std::string dir = vol + "/rm";
        ASSERT_EQ(Op({"mkdir", dir}), 0);
        Recording(dir + "/whole.ts", kCompanions);
        Recording(dir + "/part.ts", {".idx"});
        Recording(dir + "/plain.ts", kCompanions);
        EXPECT_EQ(Op({"rm", "--recording", dir + "/whole.ts"}), 0);
        EXPECT_EQ(Op({"rm", "--recording", dir + "/part.ts"}), 0);
        EXPECT_EQ(Op({"rm", dir + "/plain.ts"}), 0);
        std::set<std::string> left = Files("plain.ts", kCompanions);
        left.erase("plain.ts");
        left.insert("whole.ts.xml.sig");
        EXPECT_EQ(Names(dir), left);
        EXPECT_EQ(Op({"rmdir", dir}), 2);
        EXPECT_EQ(Names(dir), left);
        EXPECT_EQ(Op({"rm", "-r", dir}), 0);
        EXPECT_FALSE(Here(dir));
    }
    // A recording without its ".idx.desc" is copied with the companions it
    // has, except the signature, onto both file systems, with its time.
    const std::vector<std::string> has = {".desc", ".idx", ".xml", ".xml.sig"};
    ASSERT_EQ(Op({"mkdir", kExt + "/rec"}), 0);
    Recording(kExt + "/rec/r.ts", has);
    ASSERT_TRUE(In({"touch", "-d", "@1715953500", kExt + "/rec/r.ts"}).ok());
    for (const std::string& vol : {kExt, kFat}) {
        SCOPED_TRACE(vol);
        ASSERT_EQ(Op({"mkdir", vol + "/copy"}), 0);
        EXPECT_EQ(Op({"cp", "--recording", kExt + "/rec/r.ts", vol + "/copy/r.ts"}), 0);
        EXPECT_EQ(Names(vol + "/copy"), Files("r.ts", {".desc", ".idx", ".xml"}));
        ExpectRecording(vol + "/copy/r.ts", {".desc", ".idx", ".xml"});
        EXPECT_EQ(In({"stat", "-c", "%Y", vol + "/copy/r.ts"}).out, "1715953500\n");
    }
    EXPECT_EQ(Names(kExt + "/rec"), Files("r.ts", has));
    // A tree with links to a file, a folder and nowhere: copied without them.
    const std::string tree = kExt + "/tree";
    ASSERT_TRUE(tv.Exec("mkdir -p " + tree + "/sub/deeper && cd " + tree +
                        " && echo top > top && echo mid > sub/mid && echo low > sub/deeper/low && "
                        "ln -s top link && ln -s sub dirlink && ln -s /nowhere broken && ln -s ../top sub/up")
                    .ok());
    std::string all = Tree(tree);
    ASSERT_TRUE(Has(all, "link l\n") && Has(all, "sub/up l\n")) << all;
    std::string expected = "sub d\nsub/deeper d\nsub/deeper/low f\nsub/mid f\ntop f\n";
    for (const std::string& dst : {kExt + "/tree2", kFat + "/tree2", kNtfs + "/tree2"}) {
        SCOPED_TRACE(dst);
        EXPECT_EQ(Op({"cp", "-r", tree, dst}), 0);
        EXPECT_EQ(Tree(dst), expected);
        EXPECT_EQ(Differing(dst, tree), "");
        // A destination that exists is refused before anything is touched.
        EXPECT_EQ(Op({"cp", "-r", kExt + "/rec", dst}), 255);
        EXPECT_EQ(Tree(dst), expected);
    }
}

TEST_F(FileOpsTest, SecondCopyIsBusyCancelStopsALargeFileAndAFullVolumeIsAnnounced)
{
    StartService("disk stick size=512M table=msdos plugged=no dev=sdb\n  part size=256M fs=ext4 label=EXT\n"
                 "  part fs=vfat label=FAT\n"
                 "disk small size=8M table=msdos plugged=no dev=sdc\n  part fs=ext4 label=SMALL\n",
                 {"stick", "small"});
    if (HasFatalFailure())
        return;
    const std::string vol = "/mnt/pvr/shared/sdb1", fat = "/mnt/pvr/shared/sdb2", full = "/mnt/pvr/shared/sdc1";
    const std::string big = vol + "/big", one = vol + "/one";
    // 200 MB through the FAT adapter take seconds: time for a second request and a cancel while one file is under way.
    ASSERT_TRUE(tv.Exec("head -c 200M /dev/urandom > " + big).ok());
    Put(one, "one");
    // The size of a file inside the television, -1 when there is none.
    auto size = [&](const std::string& path) {
        Result r = In({"stat", "-c", "%s", "--", path});
        return r.ok() ? atoll(r.out.c_str()) : -1LL;
    };
    auto growing = [&](const std::string& path) {
        return In({"sh", "-c", "i=0; until [ $(stat -c %s \"$1\" 2>/dev/null || echo 0) -gt 0 ]; do "
                               "i=$((i+1)); [ $i -lt 3000 ] || exit 1; sleep 0.01; done", "sh", path})
            .ok();
    };
    // A second copy while the first runs is answered 5 and leaves it alone; the first still ends with its own
    // event. (Results carry no request id: the first client takes the 5 as its own, so the recorder tells.)
    Result first;
    std::thread copying([&] { first = Ctl({"cp", big, fat + "/whole"}); });
    bool started = growing(fat + "/whole");
    int second = started ? Op({"cp", one, vol + "/two"}) : kNotSent;
    copying.join();
    ASSERT_TRUE(started) << first.Describe();
    EXPECT_EQ(second, 5);
    EXPECT_FALSE(Here(vol + "/two"));
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_COPY", 2, 120));
    EXPECT_EQ(CopyResults(), (std::vector<int>{5, 0}));
    EXPECT_TRUE(In({"cmp", big, fat + "/whole"}).ok());
    ASSERT_TRUE(In({"rm", fat + "/whole"}).ok());
    // A cancel in the middle of the one file: the client's own copy answers
    // 1, and no part of the file is left behind as if it were the copy.
    std::thread cancelled([&] { first = Ctl({"cp", big, fat + "/part"}); });
    started = growing(fat + "/part");
    Result cancel = started ? Ctl({"cp", "--cancel"}) : Result{};
    cancelled.join();
    ASSERT_TRUE(started) << first.Describe();
    EXPECT_TRUE(Has(cancel.out, "\"queued\":true")) << cancel.Describe();
    EXPECT_EQ(first.status, 1) << first.Describe();
    EXPECT_TRUE(Has(first.out, "\"result\":1,")) << first.out;
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_COPY", 3)) << "the recorder may write after the client's answer";
    EXPECT_EQ(CopyResults(), (std::vector<int>{5, 0, 1}));
    EXPECT_EQ(size(fat + "/part"), -1LL);
    // The next copy runs whole: a cancel while idle is forgotten.
    EXPECT_TRUE(Ctl({"cp", "--cancel"}).ok());
    EXPECT_EQ(Op({"cp", one, fat + "/again"}), 0);
    EXPECT_EQ(Cat(fat + "/again"), "one");
    // A volume with 256 KiB left: the out-of-space notice (0x11, the copy's event) comes first, then result
    // 1, and the 2 MB file that did not fit is not there. A small file still goes.
    ASSERT_TRUE(tv.Exec("avail=$(df -Pk " + full + " | awk 'NR==2 {print $4}') && dd if=/dev/zero of=" + full +
                        "/filler bs=1k count=$((avail - 256)) 2>/dev/null; dd if=/dev/urandom of=" + vol +
                        "/big2 bs=1M count=2 2>/dev/null")
                    .ok());
    size_t from = Events().size();
    EXPECT_EQ(Op({"cp", vol + "/big2", full + "/big2"}), 1);
    EXPECT_TRUE(Has(last_.out, "\"outOfSpace\":true")) << last_.out;
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_COPY", 5));
    std::vector<std::string> after = Events();
    after.erase(after.begin(), after.begin() + static_cast<long>(from));
    ASSERT_EQ(after.size(), 2u) << testing::PrintToString(after);
    EXPECT_TRUE(Has(after[0], "\"event\":\"LUM_TV_EVT_STORAGE_OUT_OF_SPACE\"") && Has(after[0], "\"command\":17"))
        << after[0];
    EXPECT_TRUE(Has(after[1], "\"event\":\"LUM_TV_EVT_STORAGE_COPY\"") && Has(after[1], "\"result\":1}")) << after[1];
    EXPECT_EQ(size(full + "/big2"), -1LL);
    EXPECT_EQ(Op({"cp", one, full + "/one"}), 0);
    EXPECT_EQ(Cat(full + "/one"), "one");
}

TEST_F(FileOpsTest, MovesRenameInsideAVolumeAndCopyAcrossVolumes)
{
    StartService(kStick, {"stick"});
    if (HasFatalFailure())
        return;
    const std::string from = kExt + "/rec", inside = kExt + "/moved", across = kFat + "/moved";
    ASSERT_TRUE(In({"mkdir", from, inside, across}).ok());
    const std::vector<std::string> some = {".desc", ".idx", ".xml", ".xml.sig"};
    Recording(from + "/a.ts", kCompanions);
    Recording(from + "/b.ts", some);
    // Inside one volume the files keep their inodes: renamed, not copied.
    std::string inode = In({"stat", "-c", "%i", from + "/a.ts"}).out;
    EXPECT_EQ(Op({"mv", "--recording", from + "/a.ts", inside + "/a2.ts"}), 0);
    EXPECT_EQ(In({"stat", "-c", "%i", inside + "/a2.ts"}).out, inode);
    EXPECT_EQ(Names(inside), Files("a2.ts", kCompanions));
    ExpectRecording(inside + "/a2.ts", kCompanions);
    EXPECT_EQ(Op({"rename", "--recording", inside + "/a2.ts", inside + "/a3.ts"}), 0);
    EXPECT_EQ(Names(inside), Files("a3.ts", kCompanions));
    ExpectRecording(inside + "/a3.ts", kCompanions);
    // Across volumes every file is copied and its source goes; a missing companion is no failure.
    EXPECT_EQ(Op({"mv", "--recording", from + "/b.ts", across + "/b.ts"}), 0);
    EXPECT_EQ(Names(across), Files("b.ts", some));
    ExpectRecording(across + "/b.ts", some);
    EXPECT_EQ(Names(from), std::set<std::string>());
    // A tree (a source ending in "/") across volumes: copied, then the source goes.
    ASSERT_TRUE(tv.Exec("mkdir -p " + kExt + "/dir/sub && echo one > " + kExt + "/dir/one && echo two > " + kExt +
                        "/dir/sub/two")
                    .ok());
    EXPECT_EQ(Op({"mv", kExt + "/dir/", kFat + "/dir"}), 0);
    EXPECT_EQ(Tree(kFat + "/dir"), "one f\nsub d\nsub/two f\n");
    EXPECT_EQ(Cat(kFat + "/dir/sub/two"), "two\n");
    EXPECT_FALSE(Here(kExt + "/dir"));
}

// The service's bounds are the unit suite's (direct_cmds_test); here the client's own: a line of 512 is not
// sent, the exit status is the result, capture says when it cut.
TEST_F(FileOpsTest, ExecSendsLinesUpTo511AndCaptureTellsItsCut)
{
    const std::string marker = "/run/exec-marker";
    StartService("disk stick size=16M table=msdos plugged=no\n  part fs=ext4\n", {}, {"MARK=" + marker});
    if (HasFatalFailure())
        return;
    std::string line = "touch \"$MARK\" #";
    EXPECT_EQ(Op({"exec", "--", line + std::string(510 - line.size(), 'x')}), 0);
    EXPECT_TRUE(Here(marker)) << "a line of 510 characters runs";
    EXPECT_EQ(Op({"exec", "--", line + std::string(511 - line.size(), 'x')}), -1) << "sent, refused by the service";
    EXPECT_EQ(Op({"exec", "--", line + std::string(512 - line.size(), 'x')}), kNotSent);
    EXPECT_FALSE(Has(tv.Log("lumstoraged"), "cmd len = 512"));
    EXPECT_EQ(Op({"exec", "--", "exit 3"}), 3);
    Result cap = Ctl({"exec", "--capture", "--", "head -c 2000 /dev/zero | tr '\\0' a; exit 3"});
    EXPECT_TRUE(cap.ok()) << cap.Describe();
    EXPECT_TRUE(Has(cap.out, "\"count\":1024,\"output\":\"" + std::string(1024, 'a') + "\",\"cut\":true}"))
        << cap.out;
    EXPECT_TRUE(Has(cap.err, "first 1024 bytes")) << cap.err;
    Result quiet = Ctl({"exec", "--capture", "--", "true"});
    EXPECT_TRUE(Has(quiet.out, "\"count\":0,\"output\":\"\",\"cut\":false}")) << quiet.Describe();
}

}  // namespace
}  // namespace e2e
