#include "shell_word.h"

#include "mox/mox.h"

#include <cstring>
#include <string>

namespace
{

bool is_plain(unsigned char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           strchr("@%+=:,./_-", c) != nullptr;
}

void append_escaped(std::string &out, const char *s)
{
    for (; *s != '\0'; ++s) {
        if (*s == '\'')
            out += "'\\''";
        else
            out += *s;
    }
}

} // namespace

char *shell_word(const char *s)
{
    bool plain = true;
    for (const char *p = s; *p != '\0' && plain; ++p)
        plain = is_plain(static_cast<unsigned char>(*p));
    if (plain)
        return mox_strdup(s);
    std::string out = "'";
    append_escaped(out, s);
    out += '\'';
    return mox_strdup(out.c_str());
}

char *shell_quoted_inner(const char *s)
{
    std::string out;
    append_escaped(out, s);
    return mox_strdup(out.c_str());
}
