#include "ctl_run.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include <nlohmann/json.hpp>

#include "lumctl/ctl.h"

namespace hosttest {

namespace {

std::string take(char* buf, size_t len)
{
    std::string out(buf, len);
    free(buf);
    return out;
}

}  // namespace

CtlRun ctl(const std::string& socket, std::vector<std::string> words)
{
    return ctl_input(socket, std::move(words), "");
}

CtlRun ctl_input(const std::string& socket, std::vector<std::string> words, const std::string& input)
{
    words.insert(words.begin(), {"lumstoragectl", "--socket", socket});
    std::vector<char*> argv;
    for (std::string& w : words)
        argv.push_back(&w[0]);
    argv.push_back(nullptr);
    char* out_buf = nullptr;
    char* err_buf = nullptr;
    size_t out_len = 0, err_len = 0;
    FILE* out = open_memstream(&out_buf, &out_len);
    FILE* err = open_memstream(&err_buf, &err_len);
    std::string in_buf = input;
    FILE* in = in_buf.empty() ? fopen("/dev/null", "rb") : fmemopen(&in_buf[0], in_buf.size(), "rb");
    int code = lumctl::ctl_main(static_cast<int>(words.size()), argv.data(), in, out, err);
    fclose(in);
    fclose(out);
    fclose(err);
    return CtlRun{code, take(out_buf, out_len), take(err_buf, err_len)};
}

void expect_runs(const std::string& socket, std::initializer_list<Expect> cases)
{
    for (const Expect& c : cases) {
        std::string words;
        for (const std::string& w : c.words)
            words += w + " ";
        CtlRun r = ctl(socket, c.words);
        EXPECT_EQ(c.code, r.code) << words << r.err;
        EXPECT_EQ(c.out, r.out) << words;
        if (c.err != nullptr) {
            EXPECT_TRUE(has(r.err, c.err)) << words << r.err;
        }
    }
}

bool has(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

size_t occurrences(const std::string& text, const std::string& part)
{
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++n;
    return n;
}

bool json_lines(const std::string& text)
{
    size_t start = 0;
    for (size_t nl = text.find('\n'); nl != std::string::npos; nl = text.find('\n', start)) {
        if (!nlohmann::json::accept(text.substr(start, nl - start)))
            return false;
        start = nl + 1;
    }
    return start == text.size() && start > 0;
}

}  // namespace hosttest
