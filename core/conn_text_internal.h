// The characters of the text forms, by ASCII alone: no locale changes what an address or a link means.
#ifndef TARN_CONN_TEXT_INTERNAL_H
#define TARN_CONN_TEXT_INTERNAL_H

inline bool is_digit(char c) { return c >= '0' && c <= '9'; }
inline char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }
inline bool is_letter(char c) { return lower(c) >= 'a' && lower(c) <= 'z'; }

// The value of a hexadecimal digit of either case, or -1.
inline int hex_value(char c) {
    if (is_digit(c)) return c - '0';
    c = lower(c);
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

#endif
