// StorageManagerService::ReadDirAdvanced: one directory, or one playlist shown
// as a directory, listed on the service thread in blocks of m_SendBuf.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <norvfw/FileUtils.h>
#include <norvfw/RTC.h>

#include "ByteOrder.h"
#include "DirFilters.h"
#include "DirListing.h"
#include "FileTag.h"
#include "Playlist.h"
#include "ServiceHandlers.h"
#include "ServiceLog.h"

#define LISTING_NAME_MAX 258   // directory path plus entry name must stay below
#define LISTING_NAME_CUT 255   // an entry name in a record that had to shrink
#define WORKDIR_LEN 256

namespace {

// The state of one listing, the locals of ReadDirAdvanced.
struct SListing {
    StorageManagerService* s;
    unsigned short cmdId;
    char path[LISTING_PATH_LEN];
    char* pc;  // where the entry's name goes behind the directory
    int idxSend;
    unsigned int offset;  // records sent so far
    int total;
    double timeLastAnswer;
    int lto;
    bool bIsSimulatedPlayListDir;
    bool bSkipAudioMetaData;
    filter_fn_t filter;
    std::map<std::string, std::string> HttpLinkMap;
    std::map<std::string, std::string> TitleMap;
    // m_SendBuf from the first byte of a block until it has gone; between
    // blocks the format thread may send its reply.
    std::unique_lock<std::mutex> hold;
};

void begin_block(SListing& L)
{
    L.hold.lock();
    unsigned char* buf = L.s->m_SendBuf;
    put_be16(buf, L.cmdId);
    put_be16(buf + 2, static_cast<uint16_t>(L.offset));
    put_be16(buf + 4, static_cast<uint16_t>(L.total));
    L.idxSend = LISTING_BLOCK_START;
}

void send_block(SListing& L)
{
    L.s->NotifyToStorageManager(LUM_TV_EVT_STORAGE_READ_DIRS, &L.s->m_SendBuf[2], L.idxSend - 2);
    L.hold.unlock();
    L.timeLastAnswer = time_now();
}

// A failed listing: the open block, header total 0xFFFF, no records.
bool send_failure(SListing& L)
{
    put_be16(L.s->m_SendBuf + 4, LISTING_TOTAL_FAILED);
    send_block(L);
    return false;
}

// A record must fit a block on its own. Tag strings have no bound of their
// own, so a record too large goes without its tags, then without its link,
// and last with its name cut.
void shrink_record(std::string* name, unsigned char* info_tag)
{
    const int most = LISTING_BLOCK_LIMIT - LISTING_BLOCK_START;
    if (dir_record_size(name->c_str(), tag) <= most)
        return;
    SLOGW("[%s, %d] ***W: record of '%.64s' too large, sent without its tags\n", name->c_str());
    std::string link = tag.httpLink;
    clear_file_tag(&tag);
    memset(info_tag, 0, INFO_TAG_VALID);
    tag.httpLink = link;
    if (dir_record_size(name->c_str(), tag) > most)
        tag.httpLink.clear();
    if (name->size() > LISTING_NAME_CUT)
        name->resize(LISTING_NAME_CUT);
}

void append_record(SListing& L, std::string* name, const unsigned char* info_file, unsigned char* info_tag)
{
    shrink_record(name, info_tag);
    int entry_length = dir_record_size(name->c_str(), tag);
    if (L.idxSend + entry_length > LISTING_BLOCK_LIMIT ||
        time_minus(time_now(), L.timeLastAnswer) > LISTING_BLOCK_AGE) {
        send_block(L);
        begin_block(L);
    }
    L.idxSend += put_dir_record(L.s->m_SendBuf + L.idxSend, info_file, name->c_str(), tag, info_tag);
    L.offset += 1;
}

// An entry of an expanded playlist: the placeholder stands for its link.
TagLib_File* open_playlist_entry(SListing& L, const char* entryName, std::string* fileNameToSend)
{
    auto link = L.HttpLinkMap.find(entryName);
    if (link == L.HttpLinkMap.end()) {
        SLOGE("[%s, %d] CFilesystemDrv::ReadDirAdvanced(): fileName=%s / keyStr='%s' / httpLinkMap='%s' / "
              "httpLinkMap.size=%d \n",
              L.path, entryName, "", static_cast<int>(L.HttpLinkMap.size()));
        for (const auto& pair : L.HttpLinkMap)
            SLOGE("[%s, %d] CFilesystemDrv::ReadDirAdvanced(): first= %s / second= %s\n", pair.first.c_str(),
                  pair.second.c_str());
        return nullptr;
    }
    tag.httpLink = link->second;
    TagLib_File* file = open_media_file(tag.httpLink.c_str());
    GetFilenameFromFullname(&tag.httpLink, fileNameToSend);
    auto title = L.TitleMap.find(entryName);
    if (title != L.TitleMap.end())
        tag.title = title->second;
    return file;
}

// Tags of a regular file or link; a playlist in a plain directory gets the
// "/" of a directory instead and is not opened.
TagLib_File* open_entry_media(SListing& L, const char* entryName, std::string* name,
                              std::string* fileNameToSend)
{
    if (L.bSkipAudioMetaData)
        return nullptr;
    if (L.bIsSimulatedPlayListDir)
        return open_playlist_entry(L, entryName, fileNameToSend);
    if (is_playlist_file(L.path)) {
        name->push_back('/');
        return nullptr;
    }
    return open_media_file(L.pc);
}

// lstat64 of the entry at pc: 0, or the errno of a path that failed; -1 for
// a path that does not fit.
int stat_entry(SListing& L, const char* entryName, struct stat64* st)
{
    if (static_cast<size_t>(L.pc - L.path) + strlen(entryName) >= LISTING_NAME_MAX) {
        SLOGE("[%s, %d] full path for '%s' too long\n", entryName);
        return -1;
    }
    strcpy(L.pc, entryName);
    if (lstat64(L.path, st) != 0) {
        int err = errno;
        SLOGE("[%s, %d] lstat64 failed: %s(%d)\n", strerror(err), err);
        return err;
    }
    return 0;
}

// One record; entries that are neither file, link nor directory get none.
void list_entry(SListing& L, const struct dirent64* entry)
{
    unsigned char info_file[INFO_FILE_LEN] = {0};
    unsigned char info_tag[INFO_TAG_LEN] = {0};
    std::string fileNameToSend;
    std::string name = entry->d_name;
    TagLib_File* file = nullptr;
    clear_file_tag(&tag);

    struct stat64 st;
    if (stat_entry(L, entry->d_name, &st) == 0) {
        if (!S_ISREG(st.st_mode) && !S_ISLNK(st.st_mode) && !S_ISDIR(st.st_mode)) {
            SLOGW("[%s, %d] %s: not a file nor directory, st_mode = %08x\n", L.path, st.st_mode);
            return;
        }
        info_file[0] = (st.st_mode & S_IWUSR) == 0 ? 1 : 0;
        if (S_ISDIR(st.st_mode)) {
            name.push_back('/');
        } else {
            put_be32(info_file + 1, static_cast<uint32_t>(st.st_size / 1024));
            file = open_entry_media(L, entry->d_name, &name, &fileNameToSend);
            read_media_tags(file, info_tag);
        }
        put_file_time(info_file, static_cast<int64_t>(st.st_mtime) + L.lto);
    }
    if (!fileNameToSend.empty())
        name = fileNameToSend;
    append_record(L, &name, info_file, info_tag);
    release_media_file(file);
}

// The flags byte stands behind the path's terminator when len says so.
void take_flags(SListing& L, const char* sBuf, int len)
{
    L.filter = filter_old;
    L.bSkipAudioMetaData = false;
    size_t n = strlen(sBuf);
    if (static_cast<long>(n) + 1 >= len)
        return;
    unsigned char flags = static_cast<unsigned char>(sBuf[n + 1]);
    L.filter = filter_fn_table[flags & LISTING_FLAG_FILTER_MASK];
    L.bSkipAudioMetaData = (flags & LISTING_FLAG_SKIP_META) != 0;
    SLOGD("[%s, %d] path (%s): flags=%d\n", L.path, flags);
}

// A playlist presented as "name.m3u/" is expanded into "/tmp/m3u/" and
// listed from there; one that cannot be read stays a path that is no
// directory, and the listing fails in scandir.
void expand_playlist(SListing& L)
{
    L.bIsSimulatedPlayListDir = false;
    if (L.bSkipAudioMetaData || !is_playlist_file(L.path))
        return;
    if (ExtractPlaylistToTempDir(L.path, L.HttpLinkMap, L.TitleMap)) {
        snprintf(L.path, sizeof(L.path), "%s", M3U_TEMP_DIR);
        L.bIsSimulatedPlayListDir = true;
    }
}

// scandir sorts with qsort, whose algorithm differs between C libraries; the
// comparator only ever says "later", so the playlist order is made with a
// stable sort that needs nothing more.
void sort_by_time_stamp(struct dirent64** list, int total)
{
    std::stable_sort(list, list + total, [](const struct dirent64* a, const struct dirent64* b) {
        return PlaylistDirectoriesByTimeStampSort(&b, &a) == 1;
    });
}

int scan_listing(SListing& L, struct dirent64*** list)
{
    if (!L.bIsSimulatedPlayListDir)
        return scandir64(L.path, list, L.filter, alphasort64);
    int total = scandir64(L.path, list, L.filter, nullptr);
    if (total > 0)
        sort_by_time_stamp(*list, total);
    return total;
}

void list_entries(SListing& L, struct dirent64** list)
{
    put_be16(L.s->m_SendBuf + 4, static_cast<uint16_t>(L.total));
    for (int i = 0; i < L.total; ++i) {
        list_entry(L, list[i]);
        free(list[i]);
    }
    free(list);
}

}  // namespace

bool StorageManagerService::ReadDirAdvanced(const char* sBuf, int len, unsigned short aCmdID)
{
    SListing L;
    L.s = this;
    L.cmdId = aCmdID;
    L.offset = 0;
    L.total = LISTING_TOTAL_FAILED;
    L.hold = std::unique_lock<std::mutex>(m_SendBufLock, std::defer_lock);
    L.timeLastAnswer = time_now();
    begin_block(L);
    if (!copy_dir_name(L.path, sizeof(L.path), sBuf))
        return send_failure(L);

    L.lto = fs_uses_utc_for_timestamp(L.path) ? theRTC.GetLto() * 60 : 0;
    SLOGD("[%s, %d] path (%s): LTO=%d\n", L.path, L.lto);
    take_flags(L, sBuf, len);
    // Expanding a playlist runs a shell for each of its entries: m_SendBuf
    // is let go meanwhile, so a format's reply need not wait for it, and the
    // block is begun again behind it.
    L.hold.unlock();
    expand_playlist(L);
    begin_block(L);

    char prevWorkDir[WORKDIR_LEN];
    if (getcwd(prevWorkDir, sizeof(prevWorkDir)) == nullptr)
        snprintf(prevWorkDir, sizeof(prevWorkDir), "/");
    (void)!chdir(L.path);
    L.pc = L.path + strlen(L.path);

    struct dirent64** list = nullptr;
    L.total = scan_listing(L, &list);
    if (L.total < 0) {
        SLOGE("[%s, %d] scandir returned %d\n", L.total);
        L.total = LISTING_TOTAL_FAILED;
        send_failure(L);
        (void)!chdir(prevWorkDir);
        return false;
    }
    list_entries(L, list);
    send_block(L);
    (void)!chdir(prevWorkDir);
    return true;
}

void handle_read_dirs(StorageManagerService& s, CNorvMsg*, StorageManagerAction_t* action)
{
    // The hub keeps the text and its flags byte inside buf1; len never
    // reaches beyond it.
    if (memchr(action->buf1, 0, sizeof(action->buf1)) == nullptr) {
        SLOGE("[%s, %d] ***E: listing request without a terminated path\n");
        return;
    }
    int len = std::min(action->intValue1, static_cast<int>(sizeof(action->buf1)));
    s.ReadDirAdvanced(reinterpret_cast<const char*>(action->buf1), len, action->ushortValue1);
}
