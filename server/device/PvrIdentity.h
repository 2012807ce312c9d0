// The identity of the PVR partition: an empty hidden file ".YYYYMMDDNNNN.ide"
// in the partition's root, and the same name in "persist.pvr.identity.id".
#pragma once

#define PVR_IDENTITY_NAME_LENGTH 17
#define PVR_IDENTITY_FILE_SUFFIX ".ide"
#define PVR_IDENTITY_PROPERTY "persist.pvr.identity.id"

// Writes a new identity name into filename (at least 18 bytes). 0, or -1 for
// a null filename or a len below 18.
int create_identity_filename(char* filename, int len);

// Line handler for the root listing: keeps the last identity of the right
// length in context (256 bytes); -1 ends the listing at a line that is none.
int find_pvr_identity_callback(void* context, char* line);
