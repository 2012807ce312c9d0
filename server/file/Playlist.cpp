#include "Playlist.h"

#include <cstdio>
#include <fstream>

#include <norvfw/FileUtils.h>
#include <norvfw/TextConv.h>

#include "DevIdentify.h"
#include "ServiceLog.h"
#include "ShellProbe.h"
#include "ShellQuote.h"

// The code page of playlists that are not UTF-8, as the platform's converter
// numbers it: 5 is GBK, the legacy text that FAT labels are read in too.
#define PLAYLIST_LEGACY_ENCODING 5
static_assert(PLAYLIST_LEGACY_ENCODING == ENCODING_GBK, "the legacy code page of playlists is GBK");
#define PLAYLIST_TEMP_STR_SIZE 512      // UTF-8 of a converted line, terminator included
#define PLAYLIST_UNICODE_STR_UNITS 512  // UTF-16 of a converted line, terminator included

// 1902 is the first whole year that a 32-bit time_t holds (it reaches back to
// December 1901), so every placeholder's time stays representable and lies
// before any real file's.
#define PLAYLIST_FIRST_YEAR 1902

namespace {

const char UTF8_BOM[] = "\xEF\xBB\xBF";

typedef std::map<std::string, std::string> StringMap;

// What the reading of one playlist carries from line to line.
struct SPlaylistReading {
    std::string pathOfPlayList;  // the playlist's directory, with trailing "/"
    bool bIsExtM3uFile = false;
    bool fileEncodingChecked = false;
    bool isUTF8 = false;
    unsigned short year = PLAYLIST_FIRST_YEAR;  // time stamp of the next placeholder
    unsigned short hours = 0;
    unsigned short minutes = 0;
    unsigned long i = 0;  // entries made
};

// A listing shows a playlist under its name with a trailing "/"; that "/" is
// not part of the file's name. False when the file cannot be opened or its
// path has no directory part to join the entries to.
bool open_playlist(const char* aFilePath, std::ifstream& fileStream, std::string& pathOfPlayList)
{
    std::string filePath(aFilePath);
    if (filePath.size() == 1)
        return false;
    if (!filePath.empty() && filePath.back() == '/')
        filePath.pop_back();
    fileStream.open(filePath.c_str(), std::ios::in | std::ios::binary);
    if (!fileStream.is_open())
        return false;
    size_t pos = filePath.rfind('/');
    if (pos == std::string::npos)
        return false;
    pathOfPlayList = filePath.substr(0, pos + 1);
    return true;
}

// An extended playlist says "#EXTM3U" on its first line, a byte-order mark
// before it or not. Any other first line is already data and is read again.
bool is_ext_m3u(std::ifstream& fileStream)
{
    std::string firstLine;
    if (std::getline(fileStream, firstLine) && firstLine.find("#EXTM3U") != std::string::npos)
        return true;
    fileStream.clear();
    fileStream.seekg(0, std::ios::beg);
    return false;
}

// std::getline leaves the string as it was when the stream has already
// failed; emptied first, a failed read gives the empty line that ends the
// reading.
void read_line(std::ifstream& fileStream, std::string& line)
{
    line.clear();
    std::getline(fileStream, line);
}

// The next line that may name a media file. In an extended playlist that is
// the line behind "#EXTINF"; the duration and title on the "#EXTINF" line
// itself are not used.
void read_media_line(std::ifstream& fileStream, bool bIsExtM3uFile, std::string& filePath)
{
    read_line(fileStream, filePath);
    if (bIsExtM3uFile && filePath.find("#EXTINF") != std::string::npos)
        read_line(fileStream, filePath);
}

// Decides on the first line that names a media file whether the whole
// playlist is UTF-8. A byte-order mark says so and is removed; a line of fewer
// than three bytes cannot hold one and goes to the UTF-8 check whole.
void decide_encoding(SPlaylistReading& r, std::string& line)
{
    r.fileEncodingChecked = true;
    if (line.size() >= 3 && line.compare(0, 3, UTF8_BOM) == 0) {
        SLOGI("[%s, %d] CFilesystemDrv::ExtractPlaylistToTempDir(): Assuming this file is encoded in UTF-8\n");
        r.isUTF8 = true;
        line.erase(0, 3);
    } else if (is_valid_utf8(line.c_str())) {
        SLOGI("[%s, %d] CFilesystemDrv::ExtractPlaylistToTempDir(): Assuming this file is encoded in UTF-8 (without "
              "BOM)\n");
        r.isUTF8 = true;
    } else {
        SLOGI("[%s, %d] CFilesystemDrv::ExtractPlaylistToTempDir(): Assuming this file is encoded in ASCI \n");
    }
}

// Playlists written on Windows end their lines with CR LF: the last CR and
// the last LF go.
void strip_line_end(std::string& line)
{
    size_t pos = line.rfind('\r');
    if (pos != std::string::npos)
        line.erase(pos, 1);
    pos = line.rfind('\n');
    if (pos != std::string::npos)
        line.erase(pos, 1);
}

// ... and separate directories with backslashes. In a legacy code page this
// runs after the conversion: a GBK character may have 0x5C as its second byte.
void forward_slashes(std::string& line)
{
    for (char& c : line) {
        if (c == '\\')
            c = '/';
    }
}

// A line in the legacy code page becomes UTF-8. A line that the converter
// refuses, or that does not fit unicodeStr or tempStr, stays as it was read.
void convert_legacy_line(std::string& line)
{
    UTF16 unicodeStr[PLAYLIST_UNICODE_STR_UNITS];
    char tempStr[PLAYLIST_TEMP_STR_SIZE];
    if (AnsiStringToUniCodeExtRe(line.c_str(), sizeof(unicodeStr), unicodeStr, PLAYLIST_LEGACY_ENCODING) == 0)
        return;
    // The converter keeps the last unit for the terminator; setting it bounds
    // WideStrLen whatever was left there.
    unicodeStr[PLAYLIST_UNICODE_STR_UNITS - 1] = 0;
    // The terminator is converted with the text, and the last byte of tempStr
    // is never written: a converted line is always terminated.
    const UTF16* source = unicodeStr;
    const UTF16* sourceEnd = unicodeStr + WideStrLen(unicodeStr) + 1;
    UTF8* target = reinterpret_cast<UTF8*>(tempStr);
    UTF8* targetEnd = target + sizeof(tempStr) - 1;
    if (ConvertUTF16toUTF8(&source, sourceEnd, &target, targetEnd, strictConversion) != conversionOK)
        return;
    tempStr[sizeof(tempStr) - 1] = '\0';
    line = tempStr;
}

// Each "../" of the directory part climbs one level of the playlist's
// directory while that has at least three bytes; "../" steps left over when
// it is down to "/" stay in relativePathToAdd. Whatever stands before a "../"
// is dropped with it.
void climb_parent_steps(std::string& pathOfPlayListReduced, std::string& relativePathToAdd)
{
    size_t pos;
    while ((pos = relativePathToAdd.find("../")) != std::string::npos && pathOfPlayListReduced.size() >= 3) {
        relativePathToAdd.erase(0, pos + 3);
        size_t last = pathOfPlayListReduced.rfind('/');
        size_t butOne = (last == std::string::npos || last == 0) ? std::string::npos
                                                                  : pathOfPlayListReduced.rfind('/', last - 1);
        if (butOne != std::string::npos)
            pathOfPlayListReduced.erase(butOne + 1);
    }
}

// Splits the line in filePath into its directory part, relativePathToAdd, and
// its name, which stays in filePath. Only "http://" in that case marks a URL,
// which is used whole; every other line, a leading "/" or another scheme
// included, is relative to the playlist's directory.
void split_line(std::string& filePath, std::string& pathOfPlayListReduced, std::string& relativePathToAdd)
{
    relativePathToAdd.clear();
    if (filePath.compare(0, 7, "http://") == 0) {
        pathOfPlayListReduced.clear();
        return;
    }
    size_t pos = filePath.rfind('/');
    if (pos == std::string::npos)
        return;
    relativePathToAdd = filePath.substr(0, pos + 1);
    filePath.erase(0, pos + 1);
    climb_parent_steps(pathOfPlayListReduced, relativePathToAdd);
}

// Makes the next entry's empty placeholder and dates it YYYY-01-01 hh:mm with
// touch. False when no placeholder could be made; touchRc gets touch's result
// (0 when the date is set).
bool make_placeholder(const SPlaylistReading& r, std::string& tempFileName, int& touchRc)
{
    char timeStampYearString[12];
    char timeStampHourMinuteString[12];
    snprintf(timeStampYearString, sizeof(timeStampYearString), "%u", static_cast<unsigned>(r.year));
    snprintf(timeStampHourMinuteString, sizeof(timeStampHourMinuteString), "%02u%02u",
             static_cast<unsigned>(r.hours), static_cast<unsigned>(r.minutes));
    SLOGD("[%s, %d] CFilesystemDrv::ExtractPlaylistToTempDir(): timeStampYearString='%s' "
          "timeStampHourMinuteString='%s' \n",
          timeStampYearString, timeStampHourMinuteString);
    std::string tempFileFullName;
    FILE* file = OpenTempFile(M3U_TEMP_DIR, &tempFileFullName, "w");
    if (file == nullptr) {
        SLOGE("[%s, %d] CFilesystemDrv::ExtractPlaylistToTempDir(): OpenTempFile failed\n");
        return false;
    }
    GetFilenameFromFullname(&tempFileFullName, &tempFileName);
    fclose(file);
    char quoted[SHELL_LINE_MAX];
    touchRc = -1;
    if (shell_escape_dq(tempFileFullName.c_str(), quoted, sizeof(quoted)) >= 0)
        touchRc = call_system("touch -t %s0101%s \"%s\"", timeStampYearString, timeStampHourMinuteString, quoted);
    return true;
}

// One minute per entry: 1440 entries to a year, since the date is always the
// first of January.
void advance_time_stamp(SPlaylistReading& r)
{
    if (++r.minutes < 60)
        return;
    r.minutes = 0;
    if (++r.hours < 24)
        return;
    r.hours = 0;
    ++r.year;
}

// Makes the placeholder of one entry. Only a dated placeholder gets map rows:
// one that kept the present time would sort behind all others anyway. The
// time advances in either case. False when no placeholder could be made.
bool add_entry(SPlaylistReading& r, const std::string& link, const std::string& title, StringMap& aHttpLinkMap,
               StringMap& aTitleMap)
{
    std::string tempFileName;
    int touchRc = -1;
    if (!make_placeholder(r, tempFileName, touchRc))
        return false;
    if (touchRc == 0) {
        aHttpLinkMap[tempFileName] = link;
        aTitleMap[tempFileName] = title;
        r.i++;
        SLOGD("[%s, %d] CFilesystemDrv::ExtractPlaylistToTempDir(): aHttpLinkMap[%s]='%s' \n",
              tempFileName.c_str(), link.c_str());
        SLOGD("[%s, %d] CFilesystemDrv::ExtractPlaylistToTempDir(): aTitleMap[%s]='%s' \n", tempFileName.c_str(),
              title.c_str());
    }
    advance_time_stamp(r);
    return true;
}

// Reads the entries up to the end of the playlist or up to its first empty
// line, whichever comes first; lines that begin with "#" are comments. False
// when a placeholder could not be made.
bool read_entries(std::ifstream& fileStream, SPlaylistReading& r, StringMap& aHttpLinkMap, StringMap& aTitleMap)
{
    std::string filePath;
    std::string pathOfPlayListReduced;
    std::string relativePathToAdd;
    bool bEndReached = false;
    while (!bEndReached) {
        relativePathToAdd.clear();
        pathOfPlayListReduced = r.pathOfPlayList;
        read_media_line(fileStream, r.bIsExtM3uFile, filePath);
        // A last line without a line end is still handled.
        bEndReached = !fileStream.good();
        // A blank line of a CR LF file is "\r": it ends the list as well.
        if (filePath.empty() || filePath == "\r")
            break;
        if (filePath[0] == '#')
            continue;
        if (!r.fileEncodingChecked)
            decide_encoding(r, filePath);
        strip_line_end(filePath);
        if (!r.isUTF8)
            convert_legacy_line(filePath);
        forward_slashes(filePath);
        split_line(filePath, pathOfPlayListReduced, relativePathToAdd);
        if (!add_entry(r, pathOfPlayListReduced + relativePathToAdd + filePath, filePath, aHttpLinkMap, aTitleMap))
            return false;
    }
    return true;
}

}  // namespace

bool ExtractPlaylistToTempDir(const char* aFilePath, StringMap& aHttpLinkMap, StringMap& aTitleMap)
{
    const char* path = aFilePath != nullptr ? aFilePath : "";
    SLOGI("[%s, %d] CFilesystemDrv::ExtractPlaylistToTempDir(): filePath='%s' \n", path);
    // The previous expansion goes first, even if this playlist cannot be read.
    call_system("rm -rf " M3U_TEMP_DIR);
    call_system("mkdir -p " M3U_TEMP_DIR);
    SPlaylistReading r;
    std::ifstream fileStream;
    if (!open_playlist(path, fileStream, r.pathOfPlayList))
        return false;
    r.bIsExtM3uFile = is_ext_m3u(fileStream);
    SLOGI("[%s, %d] CFilesystemDrv::ExtractPlaylistToTempDir(): bIsExtM3uFile=%d \n", r.bIsExtM3uFile ? 1 : 0);
    if (!read_entries(fileStream, r, aHttpLinkMap, aTitleMap))
        return false;
    SLOGI("[%s, %d] CFilesystemDrv::ExtractPlaylistToTempDir(): nrFiles=%ld \n", static_cast<long>(r.i));
    return true;
}
