#include "json_check.h"

#include <cctype>
#include <cstring>

namespace hosttest {

namespace {

struct P {
    const std::string& s;
    size_t i;
    int depth;
};

bool value(P* p);

void ws(P* p)
{
    while (p->i < p->s.size() && strchr(" \t\r\n", p->s[p->i]) != nullptr)
        ++p->i;
}

bool eat(P* p, char c)
{
    ws(p);
    if (p->i < p->s.size() && p->s[p->i] == c) {
        ++p->i;
        return true;
    }
    return false;
}

bool digits(P* p)
{
    size_t start = p->i;
    while (p->i < p->s.size() && isdigit(static_cast<unsigned char>(p->s[p->i])))
        ++p->i;
    return p->i > start;
}

bool number(P* p)
{
    if (p->s[p->i] == '-')
        ++p->i;
    if (p->i < p->s.size() && p->s[p->i] == '0')
        ++p->i;
    else if (!digits(p))
        return false;
    if (p->i < p->s.size() && p->s[p->i] == '.' && (++p->i, !digits(p)))
        return false;
    if (p->i < p->s.size() && (p->s[p->i] == 'e' || p->s[p->i] == 'E')) {
        ++p->i;
        if (p->i < p->s.size() && (p->s[p->i] == '+' || p->s[p->i] == '-'))
            ++p->i;
        return digits(p);
    }
    return true;
}

bool escape(P* p)
{
    if (p->i >= p->s.size())
        return false;
    char c = p->s[p->i++];
    if (strchr("\"\\/bfnrt", c) != nullptr)
        return true;
    if (c != 'u')
        return false;
    for (int k = 0; k < 4; ++k, ++p->i) {
        if (p->i >= p->s.size() || !isxdigit(static_cast<unsigned char>(p->s[p->i])))
            return false;
    }
    return true;
}

// Strings must be valid UTF-8 without raw control characters.
bool string(P* p)
{
    if (!eat(p, '"'))
        return false;
    while (p->i < p->s.size()) {
        unsigned char c = static_cast<unsigned char>(p->s[p->i++]);
        if (c == '"')
            return true;
        if (c < 0x20)
            return false;
        if (c == '\\' && !escape(p))
            return false;
        if (c >= 0x80) {
            int more = (c & 0xe0) == 0xc0 ? 1 : (c & 0xf0) == 0xe0 ? 2 : (c & 0xf8) == 0xf0 ? 3 : -1;
            if (more < 0 || c == 0xc0 || c == 0xc1)
                return false;
            for (int k = 0; k < more; ++k, ++p->i) {
                if (p->i >= p->s.size() || (static_cast<unsigned char>(p->s[p->i]) & 0xc0) != 0x80)
                    return false;
            }
        }
    }
    return false;
}

bool members(P* p, char close, bool keyed)
{
    if (eat(p, close))
        return true;
    do {
        if (keyed && (!string(p) || !eat(p, ':')))
            return false;
        if (!value(p))
            return false;
    } while (eat(p, ','));
    return eat(p, close);
}

bool literal(P* p, const char* word)
{
    size_t n = strlen(word);
    if (p->s.compare(p->i, n, word) != 0)
        return false;
    p->i += n;
    return true;
}

bool value(P* p)
{
    ws(p);
    if (p->i >= p->s.size() || ++p->depth > 64)
        return false;
    char c = p->s[p->i];
    bool ok = false;
    if (c == '{')
        ok = (++p->i, members(p, '}', true));
    else if (c == '[')
        ok = (++p->i, members(p, ']', false));
    else if (c == '"')
        ok = string(p);
    else if (c == '-' || isdigit(static_cast<unsigned char>(c)))
        ok = number(p);
    else
        ok = literal(p, "true") || literal(p, "false") || literal(p, "null");
    --p->depth;
    return ok;
}

}  // namespace

bool json_valid(const std::string& text)
{
    P p{text, 0, 0};
    if (!value(&p))
        return false;
    ws(&p);
    return p.i == text.size();
}

}  // namespace hosttest
