// How much the stress tests do. Sanitizers and emulators make every access several times as dear,
// so under them the same tests run with fewer connections and rounds where that is what a test's
// time depends on.
#pragma once

#include <cstddef>

#include "tests/support/emulated.h"

namespace stress {

// g++ defines a macro for each sanitizer, clang answers __has_feature.
#if defined(__has_feature)
inline constexpr bool kAddressSanitizer = __has_feature(address_sanitizer);
inline constexpr bool kThreadSanitizer = __has_feature(thread_sanitizer);
#else
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kAddressSanitizer = true;
#else
inline constexpr bool kAddressSanitizer = false;
#endif
#if defined(__SANITIZE_THREAD__)
inline constexpr bool kThreadSanitizer = true;
#else
inline constexpr bool kThreadSanitizer = false;
#endif
#endif

// Connections to one loop, open at the same time.
inline constexpr size_t kConnections = kThreadSanitizer || kEmulated ? 2'000
                                       : kAddressSanitizer           ? 5'000
                                                                     : 10'000;

// Messages that each of them has echoed.
inline constexpr size_t kMessages = 100;

// Rounds of each race between a stop and something else.
inline constexpr size_t kRounds = kEmulated ? 200 : 1'000;

// Of these rounds, those that busy loops go through together.
inline constexpr size_t kLoopsAtOnce = kEmulated ? 40 : 200;

// Sources that eight threads share.
inline constexpr size_t kSharedSources = 1'000;

// Frames that nobody waits for, in front of the one that is waited for.
inline constexpr size_t kFrames =
    kThreadSanitizer || kAddressSanitizer || kEmulated ? 50'000 : 1'000'000;

// Devices of a kilobyte in one reply.
inline constexpr size_t kLargeDevices =
    kThreadSanitizer || kAddressSanitizer || kEmulated ? 2'000 : 100'000;

}  // namespace stress
