// Makes memory run out at a chosen moment. A suite that links `failing_allocations` gets a global
// operator new of its own, which does as it is told here; malloc is not touched.
//
//     for (uint64_t nth = 1;; ++nth) {
//         FailingAllocations failing(nth);
//         act();
//         if (!failing.happened()) break;  // every allocation of act has failed once
//         ...
//     }
#pragma once

#include <cstdint>

class FailingAllocations {
public:
    enum class Extent {
        OnlyThatOne,
        FromThereOn,
    };
    enum class Threads {
        This,
        All,
    };

    // From now on, until the end of this object, the nth allocation fails; 1 is the next one. One
    // object at a time.
    explicit FailingAllocations(uint64_t nth, Extent extent = Extent::OnlyThatOne,
                                Threads threads = Threads::This) noexcept;
    FailingAllocations(const FailingAllocations&) = delete;
    FailingAllocations& operator=(const FailingAllocations&) = delete;
    ~FailingAllocations();

    // Lets everything succeed again, before the end of this object.
    void end() noexcept;

    // Whether that many allocations were asked for.
    [[nodiscard]] bool happened() const noexcept;
};
