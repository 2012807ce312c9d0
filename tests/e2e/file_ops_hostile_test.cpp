// Hostile file names through every file operation of lumstoragectl, end to end (the unit suite sweeps the service's
// operations with more): quotes, backslashes, command substitutions, newlines, formats, leading dashes, globs, bytes
// that are not UTF-8, a name of 255 bytes. lumstoragectl takes each as an argument, byte for byte (argv carries
// everything but NUL, which no name holds). Each operation must act on the named file alone: a canary beside it
// survives, and a marker that the names would create, were any of them run as shell code, never appears.
#include "rig_fixture.h"

namespace e2e {
namespace {
const std::string kOne = "/mnt/pvr/shared/sdb1";
const std::string kTwo = "/mnt/pvr/shared/sdb2";
const std::string kHere = kOne + "/h";   // the canary's folder
const std::string kAside = kOne + "/h2";  // same volume
const std::string kAway = kTwo + "/g";    // another volume
const std::string kCanary = kHere + "/canary";
const std::string kMarker = "/run/hostile-marker";

// The service's shells see $MARK and $CANARY: a name run as code creates the marker or removes the canary.
const std::vector<std::string> kHostile = {
    "tail\\", "$(rm -f $CANARY)", "`touch $MARK`", "\";touch $MARK;\"",
    "new\nline", "%s%n%x%%", "-rf", " two  spaces ", "*", "a;b|c&d>e<f", "\xff\xfe\xc3(",
};

// One step of the sweep. In the templates, "H/", "A/" and "W/" begin paths in the canary's folder, beside it
// on the same volume and on the other volume; '%' stands for the hostile name. look: the three folders hold
// these names afterwards (empty: not looked at; "-": nothing).
struct Step {
    std::vector<const char*> args;
    const char* input;
    int result;
    std::vector<const char*> here, aside, away;
};
const Step kSweep[] = {
    // A folder named n holding a file named n, copied as a tree.
    {{"mkdir", "H/%"}, "", 0, {"%"}, {"-"}, {"-"}},
    {{"write", "H/%/%"}, "inner", 0, {}, {}, {}},
    {{"cp", "-r", "H/%", "W/%"}, "", 0, {"%"}, {"-"}, {"%"}},
    {{"rm", "-r", "W/%"}, "", 0, {}, {}, {}},
    {{"rm", "H/%/%"}, "", 0, {}, {}, {}},
    {{"rmdir", "H/%"}, "", 0, {"-"}, {"-"}, {"-"}},
    // A file named n, and a recording named n.ts that goes everywhere with its companion.
    {{"write", "H/%"}, "data", 0, {}, {}, {}},
    {{"protect", "H/%"}, "", 0, {}, {}, {}},
    {{"rm", "H/%"}, "", 2, {"%"}, {"-"}, {"-"}},
    {{"unprotect", "H/%"}, "", 0, {}, {}, {}},
    {{"cp", "H/%", "W/%"}, "", 0, {"%"}, {"-"}, {"%"}},
    {{"rename", "H/%", "A/%"}, "", 0, {"-"}, {"%"}, {"%"}},
    {{"mv", "W/%", "H/%.ts"}, "", 0, {}, {}, {}},
    {{"rm", "A/%"}, "", 0, {"%.ts"}, {"-"}, {"-"}},
    {{"write", "H/%.ts.idx"}, "idx", 0, {}, {}, {}},
    {{"cp", "--recording", "H/%.ts", "W/%.ts"}, "", 0, {"%.ts", "%.ts.idx"}, {"-"}, {"%.ts", "%.ts.idx"}},
    {{"rm", "--recording", "W/%.ts"}, "", 0, {}, {}, {}},
    {{"rename", "--recording", "H/%.ts", "A/%.ts"}, "", 0, {"-"}, {"%.ts", "%.ts.idx"}, {"-"}},
    {{"mv", "--recording", "A/%.ts", "W/%.ts"}, "", 0, {"-"}, {"-"}, {"%.ts", "%.ts.idx"}},
    {{"rm", "--recording", "W/%.ts"}, "", 0, {"-"}, {"-"}, {"-"}},
};

class FileOpsHostile : public FileOps {
protected:
    void SetUp() override
    {
        FileOps::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        StartService("disk stick size=64M table=msdos plugged=no dev=sdb\n"
                     "  part size=32M fs=ext4 label=ONE\n"
                     "    file /h/canary text=canary\n"
                     "    dir /h2\n"
                     "  part fs=ext4 label=TWO\n"
                     "    dir /g\n",
                     {"stick"}, {"MARK=" + kMarker, "CANARY=" + kCanary});
    }
    // Nothing ran and nothing was lost: the folders hold what they should. One look inside: each folder's
    // names ending in NUL, then the canary and whether the marker is there, each part ending in \1.
    void ExpectOnly(const std::set<std::string>& here, const std::set<std::string>& aside = {},
                    const std::set<std::string>& away = {}) const
    {
        const char* script =
            "for d in \"$1\" \"$2\" \"$3\"; do find \"$d\" -mindepth 1 -maxdepth 1 -printf '%f\\0'; printf '\\1'; "
            "done; cat \"$4\"; printf '\\1'; [ ! -e \"$5\" ] || printf marker; printf '\\1'";
        std::string seen = In({"sh", "-c", script, "sh", kHere, kAside, kAway, kCanary, kMarker}).out;
        std::vector<std::string> parts = Split(seen, '\1');
        ASSERT_EQ(parts.size(), 5u) << testing::PrintToString(seen);
        std::set<std::string> withCanary = here;
        withCanary.insert("canary");
        EXPECT_EQ(AsSet(Split(parts[0], '\0')), withCanary);
        EXPECT_EQ(AsSet(Split(parts[1], '\0')), aside);
        EXPECT_EQ(AsSet(Split(parts[2], '\0')), away);
        EXPECT_EQ(parts[3], "canary");
        EXPECT_EQ(parts[4], "") << "a name ran as a command";
    }
    static std::string Fill(const std::string& pattern, const std::string& n)
    {
        std::string out;
        size_t at = 0;
        const std::pair<const char*, const std::string*> kDirs[] = {{"H/", &kHere}, {"A/", &kAside}, {"W/", &kAway}};
        for (const auto& dir : kDirs) {
            if (pattern.rfind(dir.first, 0) == 0) {
                out = *dir.second + "/";
                at = 2;
            }
        }
        for (; at < pattern.size(); ++at)
            out += pattern[at] == '%' ? n : std::string(1, pattern[at]);
        return out;
    }
    static std::set<std::string> Expected(const std::vector<const char*>& patterns, const std::string& n)
    {
        std::set<std::string> names;
        for (const char* p : patterns) {
            if (std::string(p) != "-")
                names.insert(Fill(p, n));
        }
        return names;
    }
};

TEST_F(FileOpsHostile, NamesRunNothingAndEveryOperationActsOnTheNamedFileAlone)
{
    if (HasFatalFailure())
        return;
    for (const std::string& n : kHostile) {
        for (const Step& step : kSweep) {
            std::vector<std::string> args;
            for (const char* a : step.args)
                args.push_back(Fill(a, n));
            SCOPED_TRACE(testing::PrintToString(args));
            EXPECT_EQ(Op(args, step.input), step.result);
            if (!step.here.empty())
                ExpectOnly(Expected(step.here, n), Expected(step.aside, n), Expected(step.away, n));
        }
        EXPECT_EQ(Cat(kHere + "/canary"), "canary");
    }
    // The canary and the marker are within a command's reach: one that meant to would have shown.
    EXPECT_EQ(Op({"exec", "--", "test -f \"$CANARY\" && touch \"$MARK\""}), 0);
    EXPECT_TRUE(Here(kMarker));
}

TEST_F(FileOpsHostile, LongNamesGoWhereTheyFitAndAreRefusedWholeElsewhere)
{
    if (HasFatalFailure())
        return;
    // 200 bytes: paths of 223, too long for protect's field alone.
    std::string m = "$(touch $MARK)\n\"";
    m.append(200 - m.size(), 'M');
    const std::string there = kHere + "/" + m;
    EXPECT_EQ(Write(there, "middle"), 0);
    EXPECT_EQ(Op({"protect", there}), kNotSent);
    EXPECT_EQ(Op({"cp", there, kAway + "/" + m}), 0);
    EXPECT_EQ(Op({"rename", there, kAside + "/" + m}), 0);
    EXPECT_EQ(Op({"mv", kAside + "/" + m, there}), 0);
    ExpectOnly({m}, {}, {m});
    EXPECT_EQ(Cat(kAway + "/" + m), "middle");
    EXPECT_EQ(Op({"rm", kAway + "/" + m}), 0);
    EXPECT_EQ(Op({"rm", there}), 0);
    EXPECT_EQ(Op({"mkdir", there}), 0);
    EXPECT_EQ(Op({"cp", "-r", there, kAway + "/" + m}), 0);
    EXPECT_EQ(Op({"rm", "-r", kAway + "/" + m}), 0);
    EXPECT_EQ(Op({"rmdir", there}), 0);
    ExpectOnly({});
    // 255 bytes, the most a name can have: the shell lines take it; the
    // requests whose fields are shorter are refused by the client.
    std::string n = "$(touch $MARK)`touch $MARK`\"\\";
    n.append(255 - n.size(), 'L');
    const std::string here = kHere + "/" + n;
    EXPECT_EQ(Op({"mkdir", here}), 0);
    ExpectOnly({n});
    EXPECT_EQ(Op({"rmdir", here}), 0);
    EXPECT_EQ(Op({"mkdir", here}), 0);
    EXPECT_EQ(Op({"rm", "-r", here}), 0);
    ExpectOnly({});
    EXPECT_EQ(Write(here, "long"), 0);
    EXPECT_EQ(Cat(here), "long");
    EXPECT_EQ(Op({"protect", here}), kNotSent);
    EXPECT_EQ(Op({"cp", here, kAway + "/x"}), kNotSent);
    EXPECT_EQ(Op({"rename", here, kAside + "/" + n}), kNotSent);
    EXPECT_EQ(Op({"mv", here, kAway + "/" + n}), kNotSent);
    ExpectOnly({n});
    EXPECT_TRUE(OwnerWrites(here));
    EXPECT_EQ(Op({"rm", here}), 0);
    ExpectOnly({});
    // A name whose escaped form does not fit a command line fails as a command: nothing cut short runs.
    EXPECT_EQ(Op({"mkdir", kHere + "/" + std::string(250, '"')}), 2);
    ExpectOnly({});
}

}  // namespace
}  // namespace e2e
