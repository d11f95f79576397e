#include "actions/set_words.h"

#include <cstdlib>
#include <cstring>

#include "base/console.h"
#include "korl/korl.h"

namespace {

bool is_blank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

}  // namespace

bool set_word_number(const char* text, int base, long long* value, const char** end)
{
    if (!text) return false;
    char* e = nullptr;
    long long v = std::strtoll(text, &e, base);
    if (e == text) return false;
    *value = v;
    *end = e;
    return true;
}

bool set_word_index(const char* word, long long lo, long long hi, int* index)
{
    long long v = 0;
    const char* end = nullptr;
    if (!set_word_number(word, 0, &v, &end) || *end != '\0') return false;
    if (v < lo || v > hi) return false;
    *index = static_cast<int>(v);
    return true;
}

bool set_word_text(const char* word, const char* prefix, char* field, uint32_t size)
{
    size_t plen = std::strlen(prefix);
    if (std::strncmp(word, prefix, plen) != 0) return false;
    const char* v = word + plen;
    while (is_blank(*v)) v++;
    uint32_t n = 0;
    while (v[n] != '\0' && !is_blank(v[n])) n++;
    if (n == 0) return false;
    if (n > size - 1) n = size - 1;
    std::memcpy(field, v, n);
    std::memset(field + n, 0, size - n);
    return true;
}

bool set_field_equals(const char* field, uint32_t size, const char* text)
{
    size_t len = std::strlen(text);
    if (len > size) return false;
    return std::strncmp(field, text, size) == 0;
}

bool pif_parse(const char* candidate, pif_list* pif)
{
    std::memset(pif, 0, sizeof *pif);
    pif->table[0] = pif->buffer;
    static const char kPrefix[] = "-pif=";
    if (!candidate || std::strncmp(candidate, kPrefix, sizeof kPrefix - 1) != 0) return true;
    int r = korl_parse_csv(candidate + sizeof kPrefix - 1, pif->table, PIF_TABLE_SIZE,
                           PIF_BUFFER_SIZE);
    if (r < 0) return false;
    pif->count = r;
    return true;
}
