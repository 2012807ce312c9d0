// CNshell, command side: the command table, Execute, and the built-in
// commands help, exit, trace and version.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "internal.h"
#include "norvfw/Nshell.h"
#include "norvfw/Trace.h"

namespace {

const size_t kLineMax = 512;
const int kMaxArgs = 16;
const char kVersion[] = "norvfw 1.0 (Linux stand-in)";

// Splits buf in place at blanks. Returns the number of words, at most
// maxWords; more words than that give maxWords + 1.
int SplitWords(char* buf, char** words, int maxWords)
{
    int count = 0;
    char* p = buf;
    for (;;) {
        p += strspn(p, " \t\r");
        if (*p == '\0') {
            return count;
        }
        if (count == maxWords) {
            return maxWords + 1;
        }
        words[count++] = p;
        p += strcspn(p, " \t\r");
        if (*p != '\0') {
            *p++ = '\0';
        }
    }
}

const char* LevelLabel(int level)
{
    switch (level) {
    case TRACELEVEL_ALL: return "all";
    case TRACELEVEL_DEBUG: return "debug";
    case TRACELEVEL_INFO: return "info";
    case TRACELEVEL_WARNING: return "warning";
    case TRACELEVEL_ERROR: return "error";
    case TRACELEVEL_NONE: return "none";
    default: return "custom";
    }
}

void ShowTrace(std::string* out)
{
    char line[128];
    snprintf(line, sizeof(line), "screen %s\n", norvTrace.IsTracingToScreen() ? "on" : "off");
    out->append(line);
    for (unsigned int unit = 0; unit < TRACE_MAX_NR_OF_TRACE_UNITS; ++unit) {
        char name[48];
        int level = norvTrace.GetTraceLevel(unit);
        snprintf(line, sizeof(line), "%3u %-32s %s(%d)\n", unit, norvfw_internal::TraceUnitName(unit, name, sizeof(name)),
                 LevelLabel(level), level);
        out->append(line);
    }
}

// trace                     shows the switch and every unit's level
// trace screen on|off       switches output to the screen
// trace <unit>|all <level>  sets levels; units and levels by number or name
int CmdTrace(int argc, char** argv, std::string* out)
{
    if (argc == 1) {
        ShowTrace(out);
        return 0;
    }
    if (argc == 3 && strcmp(argv[1], "screen") == 0) {
        if (strcmp(argv[2], "on") == 0) {
            norvTrace.StartTracingToScreen();
        } else if (strcmp(argv[2], "off") == 0) {
            norvTrace.StopTracingToScreen();
        } else {
            out->append("error: trace screen on|off\n");
            return -EINVAL;
        }
        return 0;
    }
    int level = argc == 3 ? norvfw_internal::ParseTraceLevel(argv[2]) : -1;
    if (level < 0) {
        out->append("error: trace [screen on|off] | [<unit>|all <level>]\n");
        return -EINVAL;
    }
    if (strcmp(argv[1], "all") == 0) {
        norvTrace.SetTraceOnAll(static_cast<T_TraceLevel>(level));
        return 0;
    }
    int unit = norvfw_internal::ParseTraceUnit(argv[1]);
    if (unit < 0) {
        char line[128];
        snprintf(line, sizeof(line), "error: no trace unit '%.64s'\n", argv[1]);
        out->append(line);
        return -EINVAL;
    }
    norvTrace.SetTraceOn(static_cast<unsigned int>(unit), static_cast<T_TraceLevel>(level));
    return 0;
}

int CmdVersion(int argc, char** argv, std::string* out)
{
    (void)argc;
    (void)argv;
    out->append(kVersion);
    out->push_back('\n');
    return 0;
}

}  // namespace

void CNshell::AddNshellInternalNshellCmds()
{
    // help and exit are part of Execute itself.
    AddNshellCmd("trace", "trace | trace screen on|off | trace <unit>|all <level>", CmdTrace);
    AddNshellCmd("version", "shows the framework version", CmdVersion);
}

// Registering a name again with the same function is accepted; with another
// function it is refused.
int CNshell::AddNshellCmd(const char* name, const char* help, NshellCmdFn fn)
{
    if (name == nullptr || name[0] == '\0' || fn == nullptr || strlen(name) >= sizeof(Cmd::name) ||
        strcspn(name, " \t\r\n") != strlen(name)) {
        return -EINVAL;
    }
    std::lock_guard<std::mutex> guard(m_CmdLock);
    for (const Cmd& c : m_Cmds) {
        if (strcmp(c.name, name) == 0) {
            return c.fn == fn ? 0 : -EEXIST;
        }
    }
    Cmd cmd;
    snprintf(cmd.name, sizeof(cmd.name), "%s", name);
    snprintf(cmd.help, sizeof(cmd.help), "%s", help != nullptr ? help : "");
    cmd.fn = fn;
    m_Cmds.push_back(cmd);
    return 0;
}

void CNshell::Help(std::string* out)
{
    out->append("help     lists the commands\nexit     ends the connection\n");
    std::lock_guard<std::mutex> guard(m_CmdLock);
    for (const Cmd& c : m_Cmds) {
        char line[160];
        snprintf(line, sizeof(line), "%-8s %s\n", c.name, c.help);
        out->append(line);
    }
}

int CNshell::Execute(const char* line, std::string* out)
{
    if (line == nullptr || out == nullptr) {
        return -EINVAL;
    }
    size_t len = strnlen(line, kLineMax + 1);
    if (len > kLineMax) {
        out->append("error: line too long\n");
        return -E2BIG;
    }
    char buf[kLineMax + 1];
    memcpy(buf, line, len);
    buf[len] = '\0';
    char* argv[kMaxArgs + 1];
    int argc = SplitWords(buf, argv, kMaxArgs);
    if (argc == 0) {
        return 0;
    }
    if (argc > kMaxArgs) {
        out->append("error: too many arguments\n");
        return -E2BIG;
    }
    argv[argc] = nullptr;
    if (strcmp(argv[0], "help") == 0) {
        Help(out);
        return 0;
    }
    if (strcmp(argv[0], "exit") == 0) {
        out->append("bye\n");
        return 0;
    }
    NshellCmdFn fn = nullptr;
    {
        std::lock_guard<std::mutex> guard(m_CmdLock);
        for (const Cmd& c : m_Cmds) {
            if (strcmp(c.name, argv[0]) == 0) {
                fn = c.fn;
            }
        }
    }
    if (fn == nullptr) {
        char msg[128];
        snprintf(msg, sizeof(msg), "error: unknown command '%.64s' (try help)\n", argv[0]);
        out->append(msg);
        return -ENOENT;
    }
    return fn(argc, argv, out);
}
