// The framework's debug shell: a thread that takes one-line commands from a
// Unix socket and answers on it (see the framework README for the path).
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "norvfw/ThreadObject.h"

// A command writes its answer into out and returns 0, or non-zero on error.
typedef int (*NshellCmdFn)(int argc, char** argv, std::string* out);

class CNshell : public CThreadObject {
public:
    CNshell();
    ~CNshell() override;

    int Init(const char* name);
    // help, threads, queues, trace, version.
    void AddNshellInternalNshellCmds();
    int AddNshellCmd(const char* name, const char* help, NshellCmdFn fn);
    // Runs one command line as the socket would; used by the thread and tests.
    int Execute(const char* line, std::string* out);
    const char* GetSocketPath() const;

    void ThreadWorkFunction() override;
    int StopThread() override;

private:
    struct Cmd {
        char name[32];
        char help[96];
        NshellCmdFn fn;
    };
    // Opens the listening socket at m_SocketPath; m_Lock held. 0 or -errno.
    int OpenListenerLocked();
    void CloseListenerLocked();
    void ServeClient(int fd);
    // Answers one line on fd; false when the client asked to end.
    bool AnswerLine(int fd, const char* line);
    void Help(std::string* out);

    char m_Name[32];
    char m_SocketPath[108];
    int m_ListenFd;              // guarded by m_Lock
    int m_ClientFd;              // guarded by m_Lock
    std::mutex m_Lock;
    std::mutex m_CmdLock;
    std::vector<Cmd> m_Cmds;     // guarded by m_CmdLock
};

extern CNshell nshell;
