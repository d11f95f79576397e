// Reading the words of the set editing and export actions: numbers the way
// the command line has always written them (decimal, 0x hexadecimal,
// leading-0 octal), bounded option values and the PIF field list.
#pragma once

#include <cstdint>

// A number at the start of `text` (after optional white space and sign), in
// `base` (0 detects 0x and leading 0). `*end` is set behind the digits.
// False when there are no digits; a value beyond 64 bits saturates, which
// every caller's range check then refuses.
[[nodiscard]] bool set_word_number(const char* text, int base, long long* value,
                                   const char** end);

// The whole word is one number within lo..hi.
[[nodiscard]] bool set_word_index(const char* word, long long lo, long long hi, int* index);

// "PREFIX%s" into a field of `size` bytes: the value runs from the first
// non-blank character to the next blank and is cut to size - 1 characters.
// False when the word has another prefix or no value.
[[nodiscard]] bool set_word_text(const char* word, const char* prefix, char* field,
                                 uint32_t size);

// True when the NUL-padded field of `size` bytes holds exactly `text`.
[[nodiscard]] bool set_field_equals(const char* field, uint32_t size, const char* text);

// A PIF: the copy buffer and the field names found in it.
constexpr int PIF_TABLE_SIZE = 20;
constexpr uint32_t PIF_BUFFER_SIZE = 100;
struct pif_list {
    char buffer[PIF_BUFFER_SIZE];
    char* table[PIF_TABLE_SIZE];
    int count;  // fields in table[1..count]
};

// Splits `candidate` when it begins with "-pif="; any other word (or null)
// gives an empty list. False when the list is too long or does not parse.
[[nodiscard]] bool pif_parse(const char* candidate, pif_list* pif);
