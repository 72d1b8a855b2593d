// What the event-loop library takes for granted of <sys/event.h>, whoever provides it: the layout
// of a record and the numbers of what it uses are the same on every system.

#include <sys/event.h>

#include <cstddef>
#include <cstdint>

static_assert(sizeof(struct kevent) == 32);
static_assert(offsetof(struct kevent, ident) == 0 && sizeof(kevent::ident) == 8);
static_assert(offsetof(struct kevent, filter) == 8 && sizeof(kevent::filter) == 2);
static_assert(offsetof(struct kevent, flags) == 10 && sizeof(kevent::flags) == 2);
static_assert(offsetof(struct kevent, fflags) == 12 && sizeof(kevent::fflags) == 4);
static_assert(offsetof(struct kevent, data) == 16 && sizeof(kevent::data) == 8);
static_assert(offsetof(struct kevent, udata) == 24 && sizeof(kevent::udata) == 8);

// NOLINTBEGIN(misc-redundant-expression): that a name stands for its number is what is asserted
static_assert(EVFILT_READ == -1 && EVFILT_WRITE == -2 && EVFILT_TIMER == -7);
static_assert(EV_ADD == 0x1 && EV_DELETE == 0x2 && EV_ENABLE == 0x4 && EV_ONESHOT == 0x10);
static_assert(EV_ERROR == 0x4000 && EV_EOF == 0x8000);
static_assert(NOTE_BACKGROUND == 0x40);
// NOLINTEND(misc-redundant-expression)
