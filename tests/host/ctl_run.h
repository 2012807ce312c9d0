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
// The same with input as standard input.
CtlRun ctl_input(const std::string& socket, std::vector<std::string> words, const std::string& input);

// One run of a table: its words, exit code, standard output and a part of
// standard error (null: not looked at).
struct Expect {
    std::vector<std::string> words;
    int code;
    std::string out;
    const char* err = nullptr;
};
// Runs each case in order against socket and checks it.
void expect_runs(const std::string& socket, std::initializer_list<Expect> cases);

bool has(const std::string& text, const std::string& part);
size_t occurrences(const std::string& text, const std::string& part);

// Every line is one JSON document, and there is at least one.
bool json_lines(const std::string& text);

}  // namespace hosttest
