// The kernel event queue of the BSDs and macOS, on Linux: the same record, the same constants with
// the same numbers, the same two calls, over epoll. Only what is listed here is supported; a
// change that asks for more fails with EINVAL.
//
// Filters
//   EVFILT_READ   Level-triggered. `data` is the number of bytes that read(2) would find now: for
//                 sockets, pipes, FIFOs, terminals, and regular files up to their end. At least 1
//                 while connections wait on a listening socket. EV_EOF once the peer has closed
//                 its sending side, also while bytes are left; `fflags` is then the socket's
//                 pending error, if it has one. A byte sent out of band is not counted, except by
//                 a Unix socket's filter if a read passes over it before a call has seen it. A
//                 terminal that edits lines counts all that are complete, though each read takes
//                 one; an end-of-file character with nothing before it counts as one byte, which
//                 the read takes away without finding any. A regular file is silent at its end,
//                 and found to have grown within 50 ms; without a size, as in procfs, it is silent
//                 altogether.
//                 /dev/null has ended; other devices that are always ready, such as /dev/zero,
//                 have one byte.
//   EVFILT_WRITE  Level-triggered. `data` is a number of bytes that a blocking write(2) takes
//                 without blocking, often well below what it would take. EV_EOF when the peer can
//                 take no more, or a pending connect has failed, with the error in `fflags`. A
//                 Unix peer that has only shut its receiving side down is not told from one that
//                 listens: the write itself finds out.
//   EVFILT_TIMER  `ident` is the caller's, `data` a period in milliseconds (NOTE_BACKGROUND is
//                 accepted and changes nothing) on a clock that does not jump. Delivers the
//                 expirations since the last delivery as `data`. Adding again starts afresh with
//                 the new period. A period of 0 or less fires once, at once, and stays registered.
//                 ERANGE for a period beyond the clock. A timer takes no descriptor.
//
// Flags
//   EV_ADD, EV_DELETE, EV_ENABLE, EV_ONESHOT; EV_EOF and EV_ERROR in what is returned.
//
// Descriptors
//   Closing a descriptor removes its filters, also while a duplicate of it lives. Its number may
//   be reused at once. What cannot be seen from outside the kernel, or is not asked every time:
//   - A descriptor closed and then made again, under the same number, from a duplicate of itself
//     keeps its filters. So does a regular file or device that is always ready, closed and opened
//     again under the same number, and a FIFO or terminal whose only filter is one for writing
//     that has had room ever since it was added.
//   - A stream socket closed, without a shutdown, while a duplicate lives of it or of one that had
//     the number before, whose number has become a descriptor that is readable and without a filter
//     here: up to 31 records of that still go to the old filter.
//   - A write filter that is added or removed in answer to a record without EV_EOF, that is by the
//     call after the one that returned it, and with its udata, is taken to be for the same
//     descriptor. If that has been closed in between, the addition fails with EBADF if the call
//     collects records, and the removal does not fail. Who has made another descriptor of the same
//     number registers its read filter first, or uses another udata.
//   - A TCP_NOTSENT_LOWAT below 384 bytes is to be set before the socket has a filter.
//   Directories and block devices are refused with EINVAL. One descriptor may be in several queues;
//   a socket's pending error is told by the first that asks.
//
// Memory
//   An addition of a descriptor's filter does not fail for a lack of memory. It is tried again by
//   every call, and every 50 ms while a call waits; changes of the filter succeed meanwhile as if
//   it were there. After each half second in vain a record tells of it: EV_EOF, with ENOMEM in
//   `fflags` and no bytes; of a listening socket none does. 128 additions can wait, and more as far
//   as there is memory to keep them; one too many is told at once and not tried again, and lost if
//   it is a listening socket's. The second filter of a descriptor needs no memory.
//
// Threads: any; calls on one queue take turns, so one call that waits holds up the others.
// close(2) of the queue's own descriptor is enough to be rid of it.
#pragma once

#include <stdint.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

struct kevent {
    uint64_t ident;
    int16_t filter;
    uint16_t flags;
    uint32_t fflags;
    int64_t data;
    void* udata;
};

#define EVFILT_READ (-1)
#define EVFILT_WRITE (-2)
#define EVFILT_TIMER (-7)

#define EV_ADD 0x0001
#define EV_DELETE 0x0002
#define EV_ENABLE 0x0004
#define EV_ONESHOT 0x0010
#define EV_ERROR 0x4000
#define EV_EOF 0x8000

#define NOTE_BACKGROUND 0x00000040

// A new queue's descriptor, close-on-exec, or -1 with errno.
int kqueue(void);

// Applies all the changes, in order, then collects up to nevents records, waiting for the first as
// long as timeout says (null: without end). A change that fails becomes a record with its own
// flags, EV_ERROR and the error number in `data` (but see Memory); with such a record there is no
// wait. The changes after it are applied all the same. Failures beyond nevents have no record; with
// nevents 0 the call fails with the first one's error. changelist and eventlist may be the same
// array. Returns the number of records; 0 when the time is up; -1 with errno (EINTR: a signal
// handler ran, the changes are applied).
int kevent(int kq, const struct kevent* changelist, int nchanges, struct kevent* eventlist,
           int nevents, const struct timespec* timeout);

#ifdef __cplusplus
}
#endif

// Fills all six fields. A negative ident is sign-extended.
#define EV_SET(event, ident_, filter_, flags_, fflags_, data_, udata_) \
    do {                                                               \
        struct kevent* ev_set_record = (event);                        \
        ev_set_record->ident = (uint64_t)(ident_);                     \
        ev_set_record->filter = (filter_);                             \
        ev_set_record->flags = (uint16_t)(flags_);                     \
        ev_set_record->fflags = (uint32_t)(fflags_);                   \
        ev_set_record->data = (int64_t)(data_);                        \
        ev_set_record->udata = (void*)(udata_);                        \
    } while (0)
