// What tests of texts and records share.
#ifndef TEST_RECORDS_H
#define TEST_RECORDS_H

#include <string.h>

#include <sstream>
#include <string>
#include <vector>

// The pieces of a text between spaces: rows that need no more than a word each.
inline std::vector<std::string> words(const std::string &text) {
    std::istringstream in(text);
    std::vector<std::string> all;
    for (std::string word; in >> word;)
        all.push_back(word);
    return all;
}

template <class... Text>
std::vector<std::string> texts(const Text &...all) {
    return {all...};
}

// A record without a zero byte, for what must be written and what must stay as it is.
template <class Record>
Record dirty() {
    Record r;
    memset(&r, 0xA5, sizeof r);
    return r;
}

template <class Record>
bool same_bytes(const Record &a, const Record &b) {
    return memcmp(&a, &b, sizeof a) == 0;
}

template <class Record>
bool all_zero(const Record &r) {
    static const Record zero = {};
    return same_bytes(r, zero);
}

#endif
