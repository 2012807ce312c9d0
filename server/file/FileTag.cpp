#include "FileTag.h"

#include <sys/stat.h>

#include "ByteOrder.h"

file_tag tag;

namespace {

const char* text_or_empty(const char* text)
{
    return text != nullptr ? text : "";
}

}  // namespace

void clear_file_tag(file_tag* t)
{
    t->title.clear();
    t->artist.clear();
    t->album.clear();
    t->genre.clear();
    t->httpLink.clear();
    t->track = 0;
    t->year = 0;
    t->duration = 0;
    t->bitrate = 0;
}

// TagLib opens whatever it is given and reads until it has seen enough: a
// link to a FIFO would block the service thread in open() until some writer
// came, a link to a device node could be read without end. Only regular files
// (after following links) are handed to it.
TagLib_File* open_media_file(const char* name)
{
    struct stat64 st;
    if (name == nullptr || stat64(name, &st) != 0 || !S_ISREG(st.st_mode))
        return nullptr;
    return taglib_file_new(name);
}

void read_media_tags(TagLib_File* file, unsigned char* info_tag)
{
    if (file == nullptr || !taglib_file_is_valid(file))
        return;
    const TagLib_Tag* t = taglib_file_tag(file);
    if (t != nullptr) {
        const char* titleTemp = text_or_empty(taglib_tag_title(t));
        if (*titleTemp != '\0')
            tag.title = titleTemp;
        tag.artist = text_or_empty(taglib_tag_artist(t));
        tag.album = text_or_empty(taglib_tag_album(t));
        tag.genre = text_or_empty(taglib_tag_genre(t));
        tag.year = taglib_tag_year(t);
        tag.track = taglib_tag_track(t);
    }
    const TagLib_AudioProperties* props = taglib_file_audioproperties(file);
    if (props != nullptr) {
        tag.duration = static_cast<unsigned int>(taglib_audioproperties_length(props));
        tag.bitrate = static_cast<unsigned int>(taglib_audioproperties_bitrate(props));
        put_be16(info_tag, static_cast<uint16_t>(tag.year));
        put_be16(info_tag + 2, static_cast<uint16_t>(tag.track));
        put_be32(info_tag + 4, tag.duration);
        put_be32(info_tag + 8, tag.bitrate);
    }
    info_tag[INFO_TAG_VALID] = 1;
}

void release_media_file(TagLib_File* file)
{
    taglib_tag_free_strings();
    if (file != nullptr)
        taglib_file_free(file);
}
