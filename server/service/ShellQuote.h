// Makes untrusted text (a file name from a volume, a path from a client, a
// disk label) one literal word of a shell line.
#pragma once

#include <cstddef>

// Escapes text for use between double quotes: '"', '\\', '$' and '`' get a
// backslash, everything else stays as it is. The command formats put the
// double quotes around the result ("rm -rf \"%s\""), so ordinary names keep
// the form of the line and hostile ones run nothing.
// Returns the length written, or -1 when out (of outSize bytes, terminator
// included) is too small or an argument is null; out is then empty.
int shell_escape_dq(const char* text, char* out, size_t outSize);
