#include "platform/linux/input/spare_key_record.h"

#include <algorithm>

namespace quorvel::linux_backend {
namespace {

constexpr long kFormat = 1;
// Keycodes and the fields of a key entry are bytes; a list of keysyms is at
// most a key's width times its four groups.
constexpr long kMostKeysyms = 4 * 255;

// Reads the items one at a time; fails at the first that is missing or out
// of range.
class Items {
public:
    Items(const long* items, size_t count) : items_(items), count_(count) {}
    bool done() const { return at_ == count_; }
    std::optional<long> next(long low, long high) {
        if (at_ == count_ || items_[at_] < low || items_[at_] > high) return std::nullopt;
        return items_[at_++];
    }
    std::optional<std::vector<unsigned long>> keysyms() {
        std::optional<long> count = next(0, kMostKeysyms);
        if (!count) return std::nullopt;
        std::vector<unsigned long> syms;
        for (long i = 0; i < *count; ++i) {
            // Keysyms have 29 bits at most.
            std::optional<long> sym = next(0, 0x1FFFFFFF);
            if (!sym) return std::nullopt;
            syms.push_back(static_cast<unsigned long>(*sym));
        }
        return syms;
    }

private:
    const long* items_;
    size_t count_;
    size_t at_ = 0;
};

void appendKeysyms(std::vector<long>& items, const std::vector<unsigned long>& syms) {
    items.push_back(static_cast<long>(syms.size()));
    for (unsigned long sym : syms) items.push_back(static_cast<long>(sym));
}

}  // namespace

std::vector<long> encodeRecord(const SpareKeyRecord& record) {
    std::vector<long> items{kFormat, record.owner};
    for (const RecordedKey& key : record.keys) {
        items.push_back(key.keycode);
        for (unsigned char type : key.original.types) items.push_back(type);
        items.push_back(key.original.groupInfo);
        items.push_back(key.original.width);
        appendKeysyms(items, key.original.syms);
        appendKeysyms(items, key.placed);
    }
    return items;
}

std::optional<SpareKeyRecord> decodeRecord(const long* items, size_t count) {
    Items read(items, count);
    SpareKeyRecord record;
    std::optional<long> format = read.next(kFormat, kFormat);
    std::optional<long> owner = read.next(0, 0x7FFFFFFF);
    if (!format || !owner) return std::nullopt;
    record.owner = *owner;
    while (!read.done()) {
        RecordedKey key;
        std::optional<long> keycode = read.next(8, 255);
        if (!keycode) return std::nullopt;
        key.keycode = static_cast<unsigned>(*keycode);
        for (unsigned char& type : key.original.types) {
            std::optional<long> value = read.next(0, 255);
            if (!value) return std::nullopt;
            type = static_cast<unsigned char>(*value);
        }
        std::optional<long> groupInfo = read.next(0, 255), width = read.next(0, 255);
        std::optional<std::vector<unsigned long>> original = read.keysyms();
        std::optional<std::vector<unsigned long>> placed = original ? read.keysyms() : std::nullopt;
        if (!groupInfo || !width || !placed) return std::nullopt;
        key.original.groupInfo = static_cast<unsigned char>(*groupInfo);
        key.original.width = static_cast<unsigned char>(*width);
        key.original.syms = std::move(*original);
        key.placed = std::move(*placed);
        record.keys.push_back(std::move(key));
    }
    return record;
}

bool restoresTo(const RecordedKey& key, const KeyEntry& now) {
    if (now == key.original) return false;
    return std::all_of(now.syms.begin(), now.syms.end(), [&](unsigned long sym) {
        return sym == 0 ||
               std::find(key.placed.begin(), key.placed.end(), sym) != key.placed.end();
    });
}

}  // namespace quorvel::linux_backend
