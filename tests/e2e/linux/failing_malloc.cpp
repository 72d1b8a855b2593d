// A library for LD_PRELOAD that has memory run out in a program that knows nothing of it. From the
// beginning of main on the allocation with the number in FAILING_MALLOC fails; with
// FAILING_MALLOC_ALL those after it, too. The file that FAILING_MALLOC_TOLD names is made when that
// happens.

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>

namespace {

constinit std::atomic<bool> active = false;
constinit std::atomic<unsigned long> allocations = 0;
unsigned long failing = 0;
bool allFromThereOn = false;
const char* pathOfFile = nullptr;

using Main = int (*)(int, char**, char**);
Main realMain = nullptr;

int countedMain(int argc, char** argv, char** environment) {
    const char* number = getenv("FAILING_MALLOC");
    failing = number ? strtoul(number, nullptr, 10) : 0;
    allFromThereOn = getenv("FAILING_MALLOC_ALL") != nullptr;
    pathOfFile = getenv("FAILING_MALLOC_TOLD");
    active = failing > 0;
    return realMain(argc, argv, environment);
}

bool mustFail() noexcept {
    if (!active) return false;
    const unsigned long number = ++allocations;
    if (number == failing && pathOfFile)
        close(open(pathOfFile, O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    if (number != failing && !(allFromThereOn && number > failing)) return false;
    errno = ENOMEM;
    return true;
}

}  // namespace

// The names are the C library's.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" {

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
int __libc_start_main(Main program, int argc, char** argv, void (*begin)(), void (*end)(),
                      void (*unload)(), void* stackEnd);

void* malloc(size_t size) noexcept {
    return mustFail() ? nullptr : __libc_malloc(size);
}

void* calloc(size_t count, size_t size) noexcept {
    return mustFail() ? nullptr : __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size) noexcept {
    return mustFail() ? nullptr : __libc_realloc(memory, size);
}

void* aligned_alloc(size_t alignment, size_t size) noexcept {
    return mustFail() ? nullptr : __libc_memalign(alignment, size);
}

int __libc_start_main(Main program, int argc, char** argv, void (*begin)(), void (*end)(),
                      void (*unload)(), void* stackEnd) {
    using Start = decltype(&__libc_start_main);
    const auto next = reinterpret_cast<Start>(dlsym(RTLD_NEXT, "__libc_start_main"));
    realMain = program;
    return next(countedMain, argc, argv, begin, end, unload, stackEnd);
}
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
