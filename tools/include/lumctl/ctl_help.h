// lumstoragectl's help texts.
#pragma once

namespace lumctl {

struct CtlContext;
struct DeviceArgs;

// Whether the subcommand has a help page.
bool has_help(const char* subcommand);

// Prints the overview (word null), the page of a subcommand or the
// description of a command of the service; a usage error for any other word.
int print_help(const CtlContext& ctx, const char* word);

// help [WORD].
int run_help(const CtlContext& ctx, const DeviceArgs& args);

}  // namespace lumctl
