#include "platform/park.h"

#include <unistd.h>

// pause(2) comes back after every handled signal, which ends nothing here.
void parkMainThread() {
    for (;;)
        pause();
}
