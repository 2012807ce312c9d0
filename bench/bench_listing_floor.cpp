// The floor of a directory listing: what the service's listing cannot do
// without. scandir64 sorted by alphasort64, then per entry lstat64 and, for a
// regular file, TagLib's open, validity check, tag and audio-property reads,
// and the frees; nothing else (no records, no events). With --no-tags only
// scandir64 and lstat64. One pass over DIR, timed from inside.
//
// usage: bench_listing_floor [--no-tags] DIR
// prints: entries=N tagged=M ns=T   (M: files TagLib read a tag from)
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <string>
#include <sys/stat.h>

#include <taglib/tag_c.h>

namespace {

// Keeps the reads from being only calls: their results are counted.
struct Tally {
    long entries = 0;
    long tagged = 0;
    unsigned long sum = 0;
};

unsigned long text_length(const char* text)
{
    return text != nullptr ? strlen(text) : 0;
}

void read_tags(const char* path, Tally* tally)
{
    TagLib_File* file = taglib_file_new(path);
    if (file != nullptr && taglib_file_is_valid(file)) {
        const TagLib_Tag* tag = taglib_file_tag(file);
        if (tag != nullptr) {
            tally->sum += text_length(taglib_tag_title(tag)) + text_length(taglib_tag_artist(tag)) +
                          text_length(taglib_tag_album(tag)) + text_length(taglib_tag_genre(tag)) +
                          taglib_tag_year(tag) + taglib_tag_track(tag);
            tally->tagged += 1;
        }
        const TagLib_AudioProperties* props = taglib_file_audioproperties(file);
        if (props != nullptr)
            tally->sum += static_cast<unsigned long>(taglib_audioproperties_length(props)) +
                          static_cast<unsigned long>(taglib_audioproperties_bitrate(props));
    }
    taglib_tag_free_strings();
    if (file != nullptr)
        taglib_file_free(file);
}

// One pass; false when DIR cannot be read.
bool list(const std::string& dir, bool tags, Tally* tally)
{
    struct dirent64** names = nullptr;
    int n = scandir64(dir.c_str(), &names, nullptr, alphasort64);
    if (n < 0)
        return false;
    std::string path = dir + "/";
    const size_t base = path.size();
    for (int i = 0; i < n; ++i) {
        path.resize(base);
        path += names[i]->d_name;
        struct stat64 st;
        if (lstat64(path.c_str(), &st) == 0) {
            tally->entries += 1;
            if (tags && S_ISREG(st.st_mode))
                read_tags(path.c_str(), tally);
        }
        free(names[i]);
    }
    free(names);
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    bool tags = true;
    int i = 1;
    if (i < argc && strcmp(argv[i], "--no-tags") == 0) {
        tags = false;
        ++i;
    }
    if (i + 1 != argc) {
        fprintf(stderr, "usage: bench_listing_floor [--no-tags] DIR\n");
        return 2;
    }
    Tally tally;
    auto t0 = std::chrono::steady_clock::now();
    bool ok = list(argv[i], tags, &tally);
    auto t1 = std::chrono::steady_clock::now();
    if (!ok) {
        fprintf(stderr, "bench_listing_floor: cannot read %s: %s\n", argv[i], strerror(errno));
        return 1;
    }
    long long ns = std::chrono::duration_cast<std::chrono::nanoseconds>(t1 - t0).count();
    printf("entries=%ld tagged=%ld ns=%lld sum=%lu\n", tally.entries, tally.tagged, ns, tally.sum);
    return 0;
}
