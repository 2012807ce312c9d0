// File operations end to end: protection, recordings with their companions,
// tree copies, the copy engine's busy answer, cancel and full volume, moves
// inside and across volumes, and the command primitives, through
// lumstoragectl against the service on the simulated television, with real
// ext4 and FAT volumes on plugged sticks.
#include <gtest/gtest.h>

#include <thread>

#include "file_ops_rig.h"

namespace e2e {
namespace {

const std::string kFat = "/mnt/pvr/shared/sdb1";
const std::string kExt = "/mnt/pvr/shared/sdb2";

// FAT and ext4 on one stick.
const char* kStick =
    "disk stick size=160M table=msdos plugged=no dev=sdb\n"
    "  part size=64M fs=vfat label=FAT\n"
    "  part fs=ext4 label=EXT\n";

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

    // The ordinary failures.
    EXPECT_EQ(Op({"rm", p}), 3);
    EXPECT_EQ(Op({"protect", p}), 2);
    EXPECT_EQ(Write(kExt + "/missing/f", "x"), 3);
    EXPECT_EQ(Write(kExt + "/empty", ""), 1);
    EXPECT_FALSE(Here(kExt + "/empty"));
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

    // mkdir makes the missing levels and takes an existing one as done.
    EXPECT_EQ(Op({"mkdir", kExt + "/x/y/z"}), 0);
    EXPECT_EQ(In({"test", "-d", kExt + "/x/y/z"}).status, 0);
    EXPECT_EQ(Op({"mkdir", kExt + "/x/y"}), 0);
    EXPECT_EQ(Op({"rmdir", kExt + "/x/y/z"}), 0);
    EXPECT_EQ(Names(kExt + "/x/y"), std::set<std::string>());

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
    for (const std::string& dst : {kExt + "/tree2", kFat + "/tree2"}) {
        SCOPED_TRACE(dst);
        EXPECT_EQ(Op({"cp", "-r", tree, dst}), 0);
        EXPECT_EQ(Tree(dst), expected);
        EXPECT_EQ(Differing(dst, tree), "");
        // A destination that exists is refused before anything is touched.
        EXPECT_EQ(Op({"cp", "-r", kExt + "/rec", dst}), 255);
        EXPECT_EQ(Tree(dst), expected);
    }
}

TEST_F(FileOpsTest, SecondCopyIsBusyCancelStopsATreeAndAFullVolumeIsAnnounced)
{
    StartService("disk stick size=256M table=msdos plugged=no dev=sdb\n  part fs=ext4 label=EXT\n"
                 "disk small size=8M table=msdos plugged=no dev=sdc\n  part fs=ext4 label=SMALL\n",
                 {"stick", "small"});
    if (HasFatalFailure())
        return;
    const std::string vol = "/mnt/pvr/shared/sdb1", full = "/mnt/pvr/shared/sdc1";
    const std::string tree = vol + "/tree", one = vol + "/one";
    // 2100 files: each costs the copy a shell and a cp, seconds in all.
    ASSERT_TRUE(tv.Exec("mkdir " + tree + " && cd " + tree +
                        " && for d in a b c; do mkdir $d; for i in $(seq 700); do echo $d$i > $d/f$i; done; done")
                    .ok());
    Put(one, "one");

    // A second copy while the first runs is answered 5 and leaves it alone;
    // the first still ends with its own event. (Results carry no request id:
    // the first client takes the 5 as its own, so the recorder tells.)
    const std::string whole = vol + "/whole";
    Result first;
    std::thread copying([&] { first = Ctl({"cp", "-r", tree, whole}); });
    bool started = Filling(whole, 10);
    int second = started ? Op({"cp", one, vol + "/two"}) : kNotSent;
    copying.join();
    ASSERT_TRUE(started) << first.Describe();
    EXPECT_EQ(second, 5);
    EXPECT_FALSE(Here(vol + "/two"));
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_COPY", 2, 120));
    EXPECT_EQ(CopyResults(), (std::vector<int>{5, 0}));
    EXPECT_EQ(Tree(whole), Tree(tree));
    EXPECT_EQ(Differing(whole, tree), "");

    // A cancel in the middle: the client's own copy answers 1; what was
    // copied is the walk's order up to some entry, each file whole, and
    // nothing behind it.
    const std::string part = vol + "/part";
    std::thread cancelled([&] { first = Ctl({"cp", "-r", tree, part}); });
    started = Filling(part, 50);
    Result cancel = started ? Ctl({"cp", "--cancel"}) : Result{};
    cancelled.join();
    ASSERT_TRUE(started) << first.Describe();
    EXPECT_TRUE(Has(cancel.out, "\"queued\":true")) << cancel.Describe();
    EXPECT_EQ(first.status, 1) << first.Describe();
    EXPECT_TRUE(Has(first.out, "\"result\":1,")) << first.out;
    EXPECT_EQ(CopyResults(), (std::vector<int>{5, 0, 1}));
    // The walk's order: each folder's entries as readdir gives them, a
    // folder's contents right behind it.
    std::vector<std::string> order = Split(
        In({"sh", "-c",
            "walk() { for e in $(ls -U \"$1\"); do echo \"$2/$e\"; [ -d \"$1/$e\" ] && walk \"$1/$e\" \"$2/$e\"; done; "
            "true; }; walk \"$1\" ''",
            "sh", tree})
            .out,
        '\n');
    std::set<std::string> got =
        AsSet(Split(In({"sh", "-c", "cd \"$1\" && find . -mindepth 1 | cut -c2-", "sh", part}).out, '\n'));
    ASSERT_EQ(order.size(), 2103u);
    ASSERT_GT(got.size(), 50u);
    ASSERT_LT(got.size(), order.size()) << "the cancel stopped nothing";
    EXPECT_EQ(got, AsSet({order.begin(), order.begin() + static_cast<long>(got.size())}))
        << "what was copied is not the walk's first entries";
    EXPECT_EQ(Differing(part, tree), "");

    // The next copy runs whole: a cancel while idle is forgotten.
    EXPECT_TRUE(Ctl({"cp", "--cancel"}).ok());
    EXPECT_EQ(Op({"cp", "-r", tree + "/a", vol + "/again"}), 0);
    EXPECT_EQ(Tree(vol + "/again"), Tree(tree + "/a"));

    // A volume with 256 KiB left: the out-of-space notice (0x11, the copy's
    // event) comes first, then result 1. A small file still goes.
    ASSERT_TRUE(tv.Exec("avail=$(df -Pk " + full + " | awk 'NR==2 {print $4}') && dd if=/dev/zero of=" + full +
                        "/filler bs=1k count=$((avail - 256)) 2>/dev/null; dd if=/dev/urandom of=" + vol +
                        "/big bs=1M count=2 2>/dev/null")
                    .ok());
    size_t from = Events().size();
    EXPECT_EQ(Op({"cp", vol + "/big", full + "/big"}), 1);
    EXPECT_TRUE(Has(last_.out, "\"outOfSpace\":true")) << last_.out;
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_COPY", 5));
    std::vector<std::string> after = Events();
    after.erase(after.begin(), after.begin() + static_cast<long>(from));
    ASSERT_EQ(after.size(), 2u) << testing::PrintToString(after);
    EXPECT_TRUE(Has(after[0], "\"event\":\"LUM_TV_EVT_STORAGE_OUT_OF_SPACE\"") && Has(after[0], "\"command\":17"))
        << after[0];
    EXPECT_TRUE(Has(after[1], "\"event\":\"LUM_TV_EVT_STORAGE_COPY\"") && Has(after[1], "\"result\":1}")) << after[1];
    ASSERT_TRUE(In({"rm", "-f", full + "/big"}).ok());
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

    // Across volumes every file is copied and its source goes; a missing
    // companion is no failure. And back again.
    EXPECT_EQ(Op({"mv", "--recording", from + "/b.ts", across + "/b.ts"}), 0);
    EXPECT_EQ(Names(across), Files("b.ts", some));
    ExpectRecording(across + "/b.ts", some);
    EXPECT_EQ(Names(from), std::set<std::string>());
    EXPECT_EQ(Op({"mv", "--recording", across + "/b.ts", from + "/b.ts"}), 0);
    EXPECT_EQ(Names(from), Files("b.ts", some));
    ExpectRecording(from + "/b.ts", some);
    EXPECT_EQ(Names(across), std::set<std::string>());

    // A plain move takes the file alone, even one named like a recording.
    EXPECT_EQ(Op({"mv", from + "/b.ts", across + "/b.ts"}), 0);
    EXPECT_EQ(Names(across), std::set<std::string>{"b.ts"});
    std::set<std::string> stay = Files("b.ts", some);
    stay.erase("b.ts");
    EXPECT_EQ(Names(from), stay);

    // A tree (a source ending in "/") across volumes: copied, then the
    // source goes.
    ASSERT_TRUE(tv.Exec("mkdir -p " + kExt + "/dir/sub && echo one > " + kExt + "/dir/one && echo two > " + kExt +
                        "/dir/sub/two")
                    .ok());
    EXPECT_EQ(Op({"mv", kExt + "/dir/", kFat + "/dir"}), 0);
    EXPECT_EQ(Tree(kFat + "/dir"), "one f\nsub d\nsub/two f\n");
    EXPECT_EQ(Cat(kFat + "/dir/sub/two"), "two\n");
    EXPECT_FALSE(Here(kExt + "/dir"));
}

TEST_F(FileOpsTest, ExecRefusesLinesOf511AndMoreAndCaptureKeeps1024Bytes)
{
    const std::string marker = "/run/exec-marker";
    StartService("disk stick size=16M table=msdos plugged=no\n  part fs=ext4\n", {}, {"MARK=" + marker});
    if (HasFatalFailure())
        return;
    // A command of n characters that makes the marker when it runs.
    auto command = [](size_t n) {
        std::string line = "touch \"$MARK\" #";
        return line.append(n - line.size(), 'x');
    };
    EXPECT_EQ(Op({"exec", "--", command(510)}), 0);
    EXPECT_TRUE(Here(marker)) << "a line of 510 characters runs";
    ASSERT_TRUE(In({"rm", marker}).ok());
    EXPECT_FALSE(Has(tv.Log("lumstoraged"), "buffer overflow"));
    EXPECT_EQ(Op({"exec", "--", command(511)}), -1);
    EXPECT_TRUE(Has(tv.Log("lumstoraged"), "buffer overflow"));
    // 512 characters: the client refuses to send it; sent anyway, the
    // service refuses it with its own log line.
    EXPECT_EQ(Op({"exec", "--", command(512)}), kNotSent);
    EXPECT_FALSE(Has(tv.Log("lumstoraged"), "cmd len = 512"));
    Result raw = Ctl({"lum-exe-sys-cmd", "512", command(512)});
    EXPECT_TRUE(Has(raw.out, "\"value\":-1")) << raw.Describe();
    EXPECT_TRUE(Has(tv.Log("lumstoraged"), "cmd len = 512 > MAX(512)"));
    EXPECT_FALSE(Here(marker)) << "a refused line ran";
    EXPECT_EQ(Op({"exec", "--", "exit 3"}), 3);

    // Output is kept up to 1024 bytes; the exit status is lost.
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
