// Whether a running utility will do anything more by itself.
#pragma once

#include <cstddef>

// What a process is about, as the system shows it.
struct Activity {
    size_t threads = 0;
    bool mainSleeps = false;
    unsigned long mainWaits = 0;    // how often it has begun to wait
    unsigned long othersWaits = 0;  // of all other threads that there are
};

// Tells when nothing more will come of the utility by itself: its main thread has slept on, while
// the loop's has waited so often that it has seen all that there is, or has ended.
class Rest {
public:
    explicit Rest(int pid);

    // The daemon has done something.
    void begin();

    // To be asked every millisecond or so.
    [[nodiscard]] bool isReached();

    // Whether the main thread was alone when last looked at.
    [[nodiscard]] bool isAlone() const { return last.threads == 1; }

private:
    const int pid;
    Activity last;
    int looks = 0;
};
