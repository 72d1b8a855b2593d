// Of arrays, the records that can be read, by ascending id; those with equal ids stay as they came.
// Records without an id to go by are left out before they could be compared.
#pragma once

#include <algorithm>
#include <boost/json/array.hpp>
#include <boost/json/value.hpp>
#include <cstddef>
#include <cstdint>
#include <vector>

template <typename Record>
class SortedRecords {
public:
    using Read = bool (*)(const boost::json::value&, Record&);

    // Throws std::bad_alloc. As many may then be added without another allocation.
    void reserve(size_t count) {
        records.reserve(count);
        order.reserve(count);
    }

    void clear() noexcept {
        records.clear();
        order.clear();
    }

    // Adds a record of the reply. No reply holds so many of them that their number takes more than
    // 32 bits. Throws std::bad_alloc.
    void add(const Record& record) {
        const uint64_t place = records.size();
        records.push_back(record);
        order.push_back(uint64_t{record.id} << 32 | place);
    }

    // Adds those elements that can be read. Throws std::bad_alloc.
    void add(const boost::json::array& elements, Read read) {
        for (const boost::json::value& element : elements) {
            Record record;
            if (read(element, record)) add(record);
        }
    }

    // What is added later stands at the end until the next sort.
    void sort() noexcept { std::sort(order.begin(), order.end()); }

    [[nodiscard]] size_t size() const noexcept { return order.size(); }

    // REQUIRES: place < size().
    [[nodiscard]] const Record& operator[](size_t place) const noexcept {
        return records[static_cast<uint32_t>(order[place])];
    }

private:
    std::vector<Record> records;  // in the order of the reply
    std::vector<uint64_t> order;  // each an id, and behind it a place in records
};
