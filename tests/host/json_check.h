// A strict JSON syntax check (RFC 8259), so tests can tell that
// lumstoragectl --json prints documents other programs can parse.
#pragma once

#include <string>

namespace hosttest {

// True when text is exactly one JSON value, with optional whitespace around.
bool json_valid(const std::string& text);

}  // namespace hosttest
