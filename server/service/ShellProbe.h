// The one door to the shell and to small system files. Every external command
// of the service runs through call_system or one of the readers built on it.
// The functions keep no state and may run on any thread at the same time.
#pragma once

#include <atomic>
#include <cstddef>

#define SHELL_LINE_MAX 512          // call_system's command line, terminator included
#define SHELL_COMMAND_MAX 256       // commands whose output is read, and one output line
#define SHELL_FILENAME_MAX 260      // file names of the file readers
#define SHELL_ERR_BAD_ARGS (-22)
#define SHELL_ERR_NO_LINE (-23)
// No command runs for ever: one that still runs after SHELL_WAIT_MAX_S gets
// TERM, SHELL_TERM_GRACE_MS later KILL, and SHELL_KILL_GRACE_MS after that
// it is left behind (a process stuck in the kernel) and counts as failed.
#define SHELL_WAIT_MAX_S 3600
#define SHELL_TERM_GRACE_MS 3000
#define SHELL_KILL_GRACE_MS 2000

// A command that another thread may stop: the process group of its shell
// while it runs, 0 before and after.
typedef struct SHELL_JOB {
    std::atomic<int> pgid{0};
} SHELL_JOB;

extern const char TEMP_FILE_TEMPLATE[20];

// A line handler: gets context and one output line without its line feed; 0
// goes on, any other value stops the reading and is handed back as is.
typedef int (*line_handler_t)(void* context, char* line);

// Removes one trailing line feed. Returns the remaining length; 0 for null.
int trim_eol(char* line);

// Runs a command line through /bin/sh, in a process group of its own, for
// at most SHELL_WAIT_MAX_S.
// < 0: -1, the line has 511 characters or more and nothing ran.
//   0: the command exited with 0.
// > 0: its exit code, the number of the signal that ended it, or 255 when
//      the shell could not be started or did not end even on KILL.
int call_system(const char* format, ...) __attribute__((format(printf, 1, 2)));

// call_system that stops the command after seconds instead.
int call_system_within(int seconds, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Runs line itself (no format, any length) as call_system does, with the
// same bound, and reads at most size bytes of its standard output into buf
// (not terminated); the rest of the output is not read. The exit status is
// not looked at.
// < 0: -22 for a null line or buf, -errno when no pipe or shell could be had.
// >= 0: the bytes read.
int call_system_output(const char* line, char* buf, size_t size);

// call_system that notes the command's process group in job while it runs.
int call_system_job(SHELL_JOB* job, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Sends sig to the process group of job's command: the shell and all it
// started. true when a command ran and took the signal.
bool shell_job_kill(SHELL_JOB* job, int sig);

// True when call_system would take the line of format and its arguments: an
// operation of several lines checks them all before the first one changes
// anything.
bool shell_line_fits(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Reads up to size - 1 bytes of a file into buf and terminates them.
// < 0: -22 for a null buf or size 0.
// >= 0: the bytes read; a file that cannot be opened reads as empty (0).
int buffer_read_from_file(char* buf, int size, const char* filename, ...)
    __attribute__((format(printf, 3, 4)));

// Runs a command (cut to 255 characters) and reads its standard output into
// buf as buffer_read_from_file does.
// < 0: -22 for bad arguments, -errno when no temporary file could be made.
// >= 0: the bytes of output read; a failing command that prints nothing gives 0.
int buffer_read_from_command(char* buf, int size, const char* command, ...)
    __attribute__((format(printf, 3, 4)));

// Runs a command (cut to 255 characters) and hands each line of its standard
// output, in order, to callback. A line longer than 255 characters arrives in
// pieces.
// < 0: -22 for a null callback, -errno when the temporary file could not be
//      made or opened, -EIO when reading the output failed part way.
//   0: every line was handled (also when there was none).
// other: the first non-zero value of callback, unchanged.
int parse_output_lines(line_handler_t callback, void* context, const char* command, ...)
    __attribute__((format(printf, 3, 4)));

// Reads the first line of a file into buf without its line feed.
// < 0: -22 for bad arguments, -23 when the file cannot be opened or is empty.
// >= 0: the length of the line.
int line_read_from_file(char* buf, int size, const char* filename, ...)
    __attribute__((format(printf, 3, 4)));

// line_read_from_file of "/proc/driver/mptp/<minor>/<item>".
int mtp_read_procfs(int minor, const char* item, char* buf, int size);
