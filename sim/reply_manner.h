// How the simulated daemon replies: as it should, or wrong in one of several ways, so that people
// can see what their programs make of it. The requests are carried out all the same.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

enum class Pace { AtOnce, WholeReplies, SingleBytes };

struct ReplyManner {
    std::string_view word;    // for the command line
    std::string_view effect;  // for the help

    // The bytes to send instead of the frame of a reply. Throws std::bad_alloc.
    std::vector<char> (*shape)(int32_t command, std::string_view payload);

    bool closes = false;       // the connection, once the first reply's bytes are sent
    Pace pace = Pace::AtOnce;  // what is sent in one go
    uint32_t delayMs = 0;      // passes before each of those
};

// Whole frames, at once.
[[nodiscard]] ReplyManner properManner();

[[nodiscard]] std::span<const ReplyManner> misbehaviours();

// Null when there is no such word.
[[nodiscard]] const ReplyManner* findMisbehaviour(std::string_view word);
