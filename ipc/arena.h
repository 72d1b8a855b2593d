// Where the values of one frame live: memory that is handed out from its beginning to its end and
// given back all at once.
//
// Threads    one at a time.
// Errors     allocate throws std::bad_alloc.
#pragma once

#include <boost/json/memory_resource.hpp>
#include <cstddef>
#include <memory>

class Arena final : public boost::json::memory_resource {
public:
    Arena() noexcept;
    Arena(const Arena&) = delete;
    Arena& operator=(const Arena&) = delete;
    ~Arena() override;

    // Takes back all that it has handed out. A small reply's memory serves the next one.
    void clear() noexcept;

private:
    struct Block;
    class Preparer;

    void* do_allocate(size_t size, size_t alignment) override;
    void do_deallocate(void* /*memory*/, size_t /*size*/, size_t /*alignment*/) override {}
    [[nodiscard]] bool do_is_equal(
        const boost::json::memory_resource& other) const noexcept override {
        return this == &other;
    }

    void makeRoom(size_t size, size_t alignment);
    void addBlock(size_t least);
    void open(Block* block) noexcept;
    void giveBackBlocks(const Block* end) noexcept;
    void prepare(void* block, size_t size) noexcept;

    std::unique_ptr<Preparer> preparer;
    Block* last = nullptr;
    char* next = nullptr;   // what is free of the last block
    size_t left = 0;        // of that, what may be handed out
    size_t unprepared = 0;  // of that, what follows
};

// The reader need not give back what goes with the arena.
template <>
struct boost::json::is_deallocate_trivial<Arena> {
    static constexpr bool value = true;
};
