// Small helpers shared by the subcommands: the monotonic clock, deadlines
// and the words of a subcommand as the command line parser read them.
#pragma once

#include <string>
#include <vector>

namespace lumctl {

// Seconds on the monotonic clock.
double now_seconds();
// Milliseconds left before deadline (seconds on the monotonic clock), 0 once
// it passed; -1 when deadline is below 0 (no deadline).
int time_left_ms(double deadline);

// A subcommand's operands and options (ctl_cli.cpp reads them; each
// subcommand takes the options its help page names, the rest keep their
// defaults).
struct DeviceArgs {
    std::string word;  // pvr's and fd's word (state, open); empty for the others
    std::vector<std::string> operands;
    bool json = false;
    double timeout = -1;  // --timeout S; below 0 until the subcommand's default fills it in
    bool recording = false;  // --recording: a recording with its companions
    bool tree = false;       // -r: a tree
    bool direct = false;     // cp --direct
    bool cancel = false;     // cp --cancel, bench --cancel
    bool capture = false;    // exec --capture
    bool hex = false;        // watch --hex
    bool human = false;      // ls -h
    bool no_tags = false;    // ls --no-tags
    bool format = false;     // pvr mark --format
    long count = -1;         // watch --count N; below 0: no limit
    int filter = -1;         // ls --filter N; below 0: not given
    int id = -1;             // ls --id N; below 0: not given
};

}  // namespace lumctl
