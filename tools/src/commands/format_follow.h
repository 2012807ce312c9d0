// Follows the events of one format and prints where it is, one line per
// step: "unmounting", each volume taken off, "formatting", a watchdog
// report, "mounting", each volume mounted again, then the result from
// SET_ALL_PARTITION and the final FORMAT event. Used by format VOLUME and by
// pvr mark DISK --format.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lumctl/ctl.h"
#include "lumctl/event_query.h"

namespace lumctl {

// Where a format is, from the events seen so far. Mount and unmount events
// carry no volume name, so they count only in their own phase: an unmount
// before the end of the unmount run, a mount between that end and the end
// of the mount run.
enum class FormatPhase { kWaiting, kUnmounting, kFormatting, kMounting, kMounted, kEnded };

struct FormatFollower {
    CtlContext ctx;
    std::string volume;        // as the FORMAT and SET_ALL_PARTITION events name it
    bool busy_counts = true;   // a FORMAT -2 for volume before any progress ends the wait
    FormatPhase phase = FormatPhase::kWaiting;
    bool have_partition = false;  // SET_ALL_PARTITION for volume came
    int ret_val = 0;              // its retVal
    long long size_mb = -1;       // its size, when retVal is 0
    bool ok = false;              // the final result was 0

    // The events a format sends.
    static std::vector<int32_t> event_ids();
    // Prints what event tells; kDone once the final result (or the busy
    // refusal) came. Format events after that, or of another volume, are
    // skipped; the PVR partition's changes are told whenever they come.
    EventStep take(const CtlEvent& event);
    // What is still awaited, for a time-out message.
    std::string waiting() const;
    // Prints one step: text (none when empty) or the JSON object.
    void say(const std::string& text, const Json& json) const;
};

}  // namespace lumctl
