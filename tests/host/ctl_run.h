// lumstoragectl run in this process (ctl_main with memory streams) against
// a socket, and checks of its output.
#pragma once

#include <string>
#include <vector>

namespace hosttest {

struct CtlRun {
    int code;
    std::string out;
    std::string err;
};

// lumstoragectl --socket SOCK words...
CtlRun ctl(const std::string& socket, std::vector<std::string> words);

bool has(const std::string& text, const std::string& part);
size_t occurrences(const std::string& text, const std::string& part);

// Every line is one JSON document, and there is at least one.
bool json_lines(const std::string& text);

}  // namespace hosttest
