// Command line of lumstoraged, parsed through a table of options.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "lumhost/daemon.h"
#include "lumproto/socket_path.h"

namespace lumhost {

namespace {

int set_socket(DaemonOptions* options, const char* value, std::string*)
{
    options->socket_path = value;
    return 0;
}

int set_group(DaemonOptions* options, const char* value, std::string*)
{
    options->group = value;
    return 0;
}

int set_ready_fd(DaemonOptions* options, const char* value, std::string* error)
{
    char* end = nullptr;
    errno = 0;
    long fd = strtol(value, &end, 10);
    if (errno != 0 || end == value || *end != '\0' || fd < 0 || fd > 65535) {
        *error = std::string("--ready-fd wants a descriptor number, not '") + value + "'";
        return -1;
    }
    options->ready_fd = static_cast<int>(fd);
    return 0;
}

struct OptionRow {
    const char* name;
    int (*apply)(DaemonOptions* options, const char* value, std::string* error);
};

const OptionRow kOptions[] = {
    {"--socket", set_socket},
    {"--group", set_group},
    {"--ready-fd", set_ready_fd},
};

const OptionRow* find_option(const char* arg)
{
    for (const OptionRow& row : kOptions) {
        if (strcmp(arg, row.name) == 0)
            return &row;
    }
    return nullptr;
}

}  // namespace

const char* daemon_usage()
{
    return "usage: lumstoraged [--socket PATH] [--group NAME] [--ready-fd N]\n"
           "  --socket PATH  Unix socket to listen on (default $LUMSTORAGED_SOCKET,\n"
           "                 else /run/lumstorage/lumstoraged.sock)\n"
           "  --group NAME   also let members of group NAME connect (socket 0660)\n"
           "  --ready-fd N   write the ready line to descriptor N, then close it\n"
           "  --help         this text\n";
}

int parse_daemon_options(int argc, char** argv, DaemonOptions* options, std::string* error)
{
    options->socket_path = lumproto::default_socket_path();
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
            options->help = true;
            continue;
        }
        const OptionRow* row = find_option(argv[i]);
        if (row == nullptr) {
            *error = std::string("unknown option '") + argv[i] + "'";
            return -1;
        }
        if (i + 1 >= argc) {
            *error = std::string(argv[i]) + " wants a value";
            return -1;
        }
        if (row->apply(options, argv[++i], error) != 0)
            return -1;
    }
    return 0;
}

}  // namespace lumhost
