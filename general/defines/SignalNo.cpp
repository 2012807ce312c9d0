#include "SignalNo.h"

namespace {

const char* const SignalIdStringArray[] = {
#define SIGNAL_ID_NAME(name, value) #name,
    SIGNAL_ID_LIST(SIGNAL_ID_NAME)
#undef SIGNAL_ID_NAME
};

static_assert(sizeof(SignalIdStringArray) / sizeof(SignalIdStringArray[0]) == SIG_ID_MAX + 1,
              "one name per id, SIG_ID_MAX included");

}  // namespace

const char* GetSignalIdNamePtr(SignalIds id)
{
    // The row of SIG_ID_MAX stands in the table but is never handed out:
    // SIG_ID_MAX counts the ids, it is no signal.
    long value = static_cast<long>(id);
    if (value < 0 || value >= SIG_ID_MAX)
        return SignalIdStringArray[SIG_ID_NULL];
    return SignalIdStringArray[value];
}
