// The clock and the file helpers.
#include <cerrno>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "norvfw/FileUtils.h"
#include "norvfw/RTC.h"
#include "test_util.h"

namespace {

std::string ReadAll(const std::string& path)
{
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

int LtoIn(const char* zone)
{
    setenv("TZ", zone, 1);
    tzset();
    return theRTC.GetLto();
}

}  // namespace

TEST(Rtc, OffsetFollowsTheZoneAndTimeNowCountsMicroseconds)
{
    const char* had = getenv("TZ");
    std::string old = had != nullptr ? had : "";
    EXPECT_EQ(120, LtoIn("XYZ-2"));  // two hours east of UTC
    N_DateTime dt;
    ASSERT_EQ(0, theRTC.GetCurrentDateTimeLocal(&dt));
    time_t shifted = time(nullptr) + 2 * 3600;
    struct tm expected;
    gmtime_r(&shifted, &expected);
    EXPECT_EQ(expected.tm_year + 1900, dt.Year);
    EXPECT_EQ(expected.tm_mon + 1, dt.Month);
    EXPECT_EQ(-330, LtoIn("XYZ+5:30"));
    had != nullptr ? setenv("TZ", old.c_str(), 1) : unsetenv("TZ");
    tzset();
    theRTC.SetDateTimeFound(false);
    EXPECT_NE(0, theRTC.GetCurrentDateTimeLocal(&dt));
    theRTC.SetDateTimeFound(true);

    double start = time_now();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    double elapsed = time_minus(time_now(), start);
    EXPECT_GE(elapsed, 19000.0);
    EXPECT_LT(elapsed, 60e6);
}

TEST(Files, HelpersKeepContentsAndReportErrno)
{
    char tmpl[] = "/tmp/norvfw_files_XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(tmpl));
    std::string dir = tmpl;
    std::string file = dir + "/f";
    EXPECT_TRUE(utils::file::createFile(file.c_str()));
    std::ofstream(file) << "keep";
    EXPECT_TRUE(utils::file::createFile(file.c_str()));  // exists already: untouched
    EXPECT_EQ("keep", ReadAll(file));
    EXPECT_FALSE(utils::file::createFile((dir + "/missing/f").c_str()));
    EXPECT_FALSE(utils::file::createFile(dir.c_str()));
    EXPECT_EQ(-ENOTEMPTY, utils::file::remove(dir));
    EXPECT_LT(utils::file::swapoff(file), 0);  // not a swap file

    std::string previous;
    for (const std::string& d : {dir, dir + "/"}) {
        std::string full;
        FILE* f = OpenTempFile(d.c_str(), &full, "w+");
        ASSERT_NE(nullptr, f);
        EXPECT_EQ(dir + "/", full.substr(0, dir.size() + 1));
        EXPECT_EQ(std::string::npos, full.find("//"));
        EXPECT_NE(previous, full);
        previous = full;
        fputs("data", f);
        fclose(f);
        EXPECT_EQ("data", ReadAll(full));
        EXPECT_EQ(0, utils::file::remove(full));
    }
    EXPECT_EQ(nullptr, OpenTempFile((dir + "/missing").c_str(), &previous, "w"));
    EXPECT_EQ(0, utils::file::remove(file));
    EXPECT_EQ(-ENOENT, utils::file::remove(file));
    EXPECT_FALSE(utils::file::isFileExisting(file));
    EXPECT_EQ(0, utils::file::remove(dir));

    const char* cases[][2] = {{"/mnt/usb/a.mp3", "a.mp3"}, {"a.mp3", "a.mp3"}, {"/mnt/usb/", ""}};
    for (auto& c : cases) {
        std::string full(c[0]);
        std::string name = "stale";
        GetFilenameFromFullname(&full, &name);
        EXPECT_EQ(c[1], name) << c[0];
    }
}
