// A bounded store of records with lasting numbers, and the wheel that says when to look at one again.
//
// A record never moves, so no copy of a secret in it stays behind; a number comes back after its record is gone.
// Record needs: uint32_t due_s, the second of its wheel entry. One thread.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

namespace app {

constexpr uint32_t no_record = UINT32_MAX;

template <class Record>
class slab {
public:
    explicit slab(uint32_t capacity) : capacity_(capacity) {}

    // The number of a free record, or no_record when all are taken.
    uint32_t take() {
        if (!free_.empty()) {
            const uint32_t index = free_.back();
            free_.pop_back();
            return index;
        }
        if (records_.size() >= capacity_) return no_record;
        records_.emplace_back();
        return static_cast<uint32_t>(records_.size() - 1);
    }
    void give_back(uint32_t index) { free_.push_back(index); }

    Record &operator[](uint32_t index) { return records_[index]; }
    const Record &operator[](uint32_t index) const { return records_[index]; }
    // Numbers below this one have been taken at some time.
    uint32_t reach() const { return static_cast<uint32_t>(records_.size()); }
    uint32_t used() const { return static_cast<uint32_t>(records_.size() - free_.size()); }

private:
    uint32_t capacity_;
    std::deque<Record> records_;
    std::vector<uint32_t> free_;
};

// One slot for each second. A record's time may move on without a word to the wheel: it is looked at when the old time
// comes, and put in again. So a refresh costs nothing, and a record is looked at about once in its lifetime.
class expiry_wheel {
public:
    static constexpr uint64_t second_us = 1000000;

    template <class Record>
    void add(uint32_t index, Record &record, uint64_t deadline_us) {
        // The first second that begins behind the deadline; further ahead than the wheel reaches is cut.
        const uint64_t due_s = std::min(deadline_us / second_us + 1, passed_s_ + slots_.size() - 1);
        record.due_s = static_cast<uint32_t>(due_s);
        slots_[due_s % slots_.size()].push_back(index);
    }

    // Calls look(index) for each record whose second has come; look adds the record again or gives it back. A record that
    // was given back early is seen once more.
    template <class Record, class Look>
    void advance(uint64_t now_us, slab<Record> &records, Look look) {
        const uint64_t now_s = now_us / second_us;
        if (now_s <= passed_s_) return;
        // After a long silence one turn reaches every slot.
        const uint64_t first_s = now_s - std::min<uint64_t>(now_s - passed_s_, slots_.size()) + 1;
        passed_s_ = now_s;
        // All are taken out before the first is looked at, which may put one in again.
        std::vector<uint32_t> due;
        for (uint64_t second = first_s; second <= now_s; second++) {
            std::vector<uint32_t> &slot = slots_[second % slots_.size()];
            due.insert(due.end(), slot.begin(), slot.end());
            slot.clear();
        }
        for (const uint32_t index : due) {
            // Else it is the entry of a record that went early, and came back with a time of its own.
            if (records[index].due_s <= now_s) look(index);
        }
    }

private:
    std::array<std::vector<uint32_t>, 128> slots_;
    uint64_t passed_s_ = 0;
};

} // namespace app
