// The media tags of the entry a listing is working on, read through TagLib's
// C interface.
#pragma once

#include <string>

#include <taglib/tag_c.h>

#define INFO_FILE_LEN 10
#define INFO_TAG_LEN 18
#define INFO_TAG_VALID 17  // info_tag byte: TagLib read the file

typedef struct {
    std::string title;
    std::string artist;
    std::string album;
    std::string genre;
    std::string httpLink;  // link of an expanded playlist's entry, else empty
    unsigned int track;
    unsigned int year;
    unsigned int duration;  // seconds
    unsigned int bitrate;   // kilobits per second
} file_tag;

// The listing's current entry; only the service thread touches it.
extern file_tag tag;

// Empty strings, zero numbers.
void clear_file_tag(file_tag* t);

// taglib_file_new for a file that is regular after following links; null for
// anything else (see the .cpp for why).
TagLib_File* open_media_file(const char* name);

// Reads the tags and audio properties of an opened file into tag, and the
// numbers big-endian into info_tag (INFO_TAG_LEN bytes). A null or invalid
// file changes nothing. The title replaces tag.title only when it is not
// empty, so a playlist's text survives a file without a title.
void read_media_tags(TagLib_File* file, unsigned char* info_tag);

// Releases what TagLib handed out for the entry and closes its file (null
// is fine).
void release_media_file(TagLib_File* file);
