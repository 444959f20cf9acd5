// Key paths and value names become element names: unsafe characters are
// replaced and paths are split into their components.
#include <cstring>

#include "XmlStore.h"

namespace {
// Characters an element name must not carry; the final zero never matches.
const char replace_char[29] = {' ', '"', '`', '!', '#', '$', '%', '&', '\'', '(',
                               ')', '*', '+', ',', ':', ';', '<', '=', '>', '?',
                               '@', '[', ']', '^', '{', '|', '}', '~', '\0'};

bool isSeparator(char c) { return c == '\\' || c == '/'; }
}  // namespace

char replaceChar(char c)
{
    if (c == '\0') return c;
    return std::memchr(replace_char, c, sizeof replace_char - 1) != nullptr ? '_' : c;
}

void clearSpace(char* text)
{
    if (text == nullptr) return;
    for (; *text != '\0'; ++text) *text = replaceChar(*text);
}

int getFolderName(const char* path, char (*out)[XML_PATH_MAX])
{
    if (path == nullptr) return 0;
    int count = 0;
    const char* p = path;
    while (*p != '\0') {
        while (isSeparator(*p)) ++p;
        if (*p == '\0') break;
        const char* start = p;
        while (*p != '\0' && !isSeparator(*p)) ++p;
        size_t length = static_cast<size_t>(p - start);
        if (length >= XML_PATH_MAX) return -1;
        if (out != nullptr) {
            std::memcpy(out[count], start, length);
            out[count][length] = '\0';
        }
        ++count;
    }
    return count;
}
