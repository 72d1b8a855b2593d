// The kernel event queue: whatever is done with descriptors and filters, its records are those that
// poll(2) and FIONREAD, asked right before and after, lead one to expect of what <sys/event.h>
// promises.

#include <fuzzer/FuzzedDataProvider.h>
#include <poll.h>
#include <sys/event.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fuzz/support/open_descriptors.h"
#include "fuzz/support/oracle.h"

namespace {

using Record = struct kevent;
using Records = std::vector<Record>;
using Statuses = OpenDescriptors::Statuses;
using Errors = std::set<int64_t>;          // those that a change may fail with; 0: it may succeed
using Key = std::pair<uint64_t, int16_t>;  // of a filter

constexpr size_t kMostSteps = 150;
constexpr size_t kMostOpen = 10;
constexpr int kFullRoom = 64;

// What stands in the udata of changes, and only there: the addresses of these.
std::array<char, 4 * kMostSteps> owners;

std::string describe(const Record& record) {
    return "ident " + std::to_string(record.ident) + ", filter " + std::to_string(record.filter) +
           ", flags " + std::to_string(record.flags) + ", fflags " + std::to_string(record.fflags) +
           ", data " + std::to_string(record.data);
}

void requireOf(const Record& record, bool holds, const std::string& what) {
    if (!holds) refute(what + ": " + describe(record));
}

int fdOf(const Record& record) {
    return static_cast<int>(record.ident);
}

// A filter of a descriptor that was added.
struct Filter {
    void* owner = nullptr;
    bool oneShot = false;
    bool isSure = true;     // false: <sys/event.h> leaves open whether it is still there
    bool isCounted = true;  // false: and how many bytes it counts
};

// Fires at once and once, or not as long as this program lives.
struct Timer {
    void* owner = nullptr;
    bool oneShot = false;
    bool due = false;
};

// What the queue has been told and has not forgotten.
class Model {
public:
    explicit Model(const OpenDescriptors& all) : descriptors(all) {}

    // Before the descriptor is closed.
    void forget(int fd);

    [[nodiscard]] Errors apply(const Record& change);

    // From here on a Unix socket's count may be too high, until its filter has been removed.
    void doubtUnixCounts();

    // Records are checked before anything else happens, and once.
    void check(const Record& record, const Statuses& before, const Statuses& after);

    // What has to have a record.
    [[nodiscard]] std::set<Key> findReady(const Statuses& before, const Statuses& after) const;

    // Of the records that come from here on.
    void beginCall() { answered.clear(); }

private:
    [[nodiscard]] Errors applyToTimer(const Record& change);
    [[nodiscard]] Errors applyToClosed(const Record& change);
    void checkTimer(const Record& record);
    void checkCounts(const Record& record, DescriptorKind kind,
                     const DescriptorStatus& status) const;

    const OpenDescriptors& descriptors;
    std::map<Key, Filter> filters;
    std::map<uint64_t, Timer> timers;
    std::set<int> duplicated;  // numbers of descriptors that were closed while a duplicate lived
    std::set<int> answered;    // descriptors with a record in the last call
};

// A later descriptor of the number may go on with the filters of what is always ready, or of one
// that has been duplicated, or see up to 31 records of theirs.
void Model::forget(int fd) {
    if (descriptors.hasRelative(fd)) duplicated.insert(fd);
    const bool mayGoOn = isAlwaysReady(descriptors.find(fd)->kind) || duplicated.contains(fd);
    for (const int16_t filter : {int16_t{EVFILT_READ}, int16_t{EVFILT_WRITE}}) {
        const auto found = filters.find({fd, filter});
        if (found == filters.end()) continue;
        if (found->second.isSure && !mayGoOn)
            filters.erase(found);
        else
            found->second.isSure = false;
    }
}

void Model::doubtUnixCounts() {
    for (auto& [key, filter] : filters) {
        const OpenDescriptor* descriptor = descriptors.find(static_cast<int>(key.first));
        if (descriptor && descriptor->kind == DescriptorKind::UnixStream) filter.isCounted = false;
    }
}

Errors Model::apply(const Record& change) {
    if ((change.flags & EV_EOF) != 0) return {EINVAL};
    if (change.filter == EVFILT_TIMER) return applyToTimer(change);
    if (!descriptors.find(fdOf(change))) return applyToClosed(change);
    const Key key = {change.ident, change.filter};
    if ((change.flags & EV_ADD) != 0) {
        Filter& filter = filters[key];
        filter.owner = change.udata;
        filter.oneShot = (change.flags & EV_ONESHOT) != 0;
        filter.isSure = true;
        return {0};
    }
    const auto filter = filters.find(key);
    if (filter == filters.end()) return {ENOENT};
    const bool isSure = filter->second.isSure;
    if ((change.flags & EV_DELETE) != 0) filters.erase(filter);
    return isSure ? Errors{0} : Errors{0, ENOENT};
}

Errors Model::applyToTimer(const Record& change) {
    const auto timer = timers.find(change.ident);
    if ((change.flags & EV_ADD) == 0) {
        if (timer == timers.end()) return {ENOENT};
        if ((change.flags & EV_DELETE) != 0) timers.erase(timer);
        return {0};
    }
    if (change.data == INT64_MAX) return {ERANGE};
    timers[change.ident] = {.owner = change.udata,
                            .oneShot = (change.flags & EV_ONESHOT) != 0,
                            .due = change.data <= 0};
    return {0};
}

// A change of a write filter that answers a record is taken to be for what the record was of. Then
// the filters may still be there when the number means something that cannot be told from that.
Errors Model::applyToClosed(const Record& change) {
    Errors errors = {EBADF};
    if ((change.flags & EV_ADD) == 0) errors.insert(ENOENT);
    if (change.filter == EVFILT_WRITE && answered.contains(fdOf(change))) {
        errors.insert(0);
        if ((change.flags & EV_ADD) != 0)
            filters[{change.ident, change.filter}] = {.owner = change.udata,
                                                      .oneShot = (change.flags & EV_ONESHOT) != 0,
                                                      .isSure = false};
        return errors;
    }
    filters.erase({change.ident, EVFILT_READ});
    filters.erase({change.ident, EVFILT_WRITE});
    return errors;
}

void Model::check(const Record& record, const Statuses& before, const Statuses& after) {
    if (record.filter == EVFILT_TIMER) return checkTimer(record);
    const int fd = fdOf(record);
    const OpenDescriptor* descriptor = descriptors.find(fd);
    if ((record.flags & EV_ERROR) != 0)
        return requireOf(record, record.data == EBADF && descriptor == nullptr,
                         "what fails late is an addition to a closed descriptor");
    const auto found = filters.find({record.ident, record.filter});
    requireOf(record, found != filters.end(), "a record is one of a filter that is there");
    requireOf(record, descriptor != nullptr, "a record is one of an open descriptor");
    const Filter filter = found->second;
    if (filter.oneShot) filters.erase(found);
    requireOf(record, record.udata == filter.owner, "a record goes to its filter's owner");
    requireOf(record, (record.flags & ~unsigned{EV_EOF}) == (filter.oneShot ? EV_ONESHOT : 0U),
              "a record says whether its filter was one-shot, and no more");
    if ((record.flags & EV_EOF) == 0) answered.insert(fd);
    if (filter.isSure && filter.isCounted && before.at(fd) == after.at(fd))
        checkCounts(record, descriptor->kind, after.at(fd));
}

void Model::checkTimer(const Record& record) {
    const auto timer = timers.find(record.ident);
    requireOf(record, timer != timers.end() && timer->second.due, "a timer fires that is due");
    requireOf(record, record.udata == timer->second.owner, "a timer's record goes to its owner");
    requireOf(record, record.data == 1, "a timer fires once");
    requireOf(record, record.flags == (timer->second.oneShot ? EV_ONESHOT : 0),
              "a timer's record says whether it was one-shot");
    timer->second.due = false;
    if (timer->second.oneShot) timers.erase(timer);
}

void Model::checkCounts(const Record& record, DescriptorKind kind,
                        const DescriptorStatus& status) const {
    const bool ended = hasEnded(kind, status, record.filter);
    requireOf(record, ((record.flags & EV_EOF) != 0) == ended, "the end is told");
    requireOf(record, ended || record.fflags == 0, "an error comes with the end");
    requireOf(record, ended || record.data > 0, "what is not at its end has bytes or room");
    if (record.filter == EVFILT_WRITE || (kind == DescriptorKind::Pipe && !status.has(POLLIN)))
        return;
    const std::string there = std::to_string(status.bytes);
    if (!descriptors.hadOutOfBand() || !isStreamSocket(kind))
        return requireOf(record, record.data == status.bytes, "the count is exact: " + there);
    requireOf(record, record.data <= status.bytes || status.bytes == kMostPeeked,
              "no more is counted than is there: " + there);
}

std::set<Key> Model::findReady(const Statuses& before, const Statuses& after) const {
    std::set<Key> ready;
    for (const auto& [key, filter] : filters) {
        const int fd = static_cast<int>(key.first);
        const OpenDescriptor* descriptor = descriptors.find(fd);
        if (descriptor && filter.isSure && filter.isCounted && before.at(fd) == after.at(fd) &&
            isReady(descriptor->kind, after.at(fd), key.second))
            ready.insert(key);
    }
    for (const auto& [ident, timer] : timers)
        if (timer.due) ready.emplace(ident, EVFILT_TIMER);
    return ready;
}

// Makes steps at random.
class Player {
public:
    explicit Player(FuzzedDataProvider& source) : input(source) {
        require(queue != -1, "a queue is to be had");
    }
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;
    ~Player() { close(queue); }

    void play() {
        for (size_t i = 0; i < kMostSteps && input.remaining_bytes() > 0; ++i)
            step();
        exchange(kFullRoom);
    }

private:
    void step();
    void open();
    void closeOne();
    void duplicateOne();
    void useOne(uint8_t choice);
    void change();
    void changeTimer();
    void exchange(int room);

    [[nodiscard]] int chooseFd();
    [[nodiscard]] Records takeChanges();
    void checkFailedCall(const std::vector<Errors>& expected, int error, int room) const;
    [[nodiscard]] static bool checkFailures(const Records& changes,
                                            const std::vector<Errors>& expected,
                                            const Records& records, size_t room);
    void checkRecords(const Records& records, const Statuses& before, const Statuses& after,
                      size_t room);
    void tryRoom(const Records& records);

    FuzzedDataProvider& input;
    const int queue = kqueue();
    OpenDescriptors descriptors;
    Model model{descriptors};
    Records changes;                  // for the next call
    std::map<int, size_t> ownerOfFd;  // another one for each descriptor that a number has meant
    size_t lastOwner = 0;
    bool isOutOfBandUnseen = false;  // a byte sent so, by the queue
};

void Player::step() {
    const auto choice = input.ConsumeIntegral<uint8_t>();
    switch (choice % 8) {
        case 0:
            return open();
        case 1:
            return choice >= 128 ? duplicateOne() : closeOne();
        case 2:
        case 3:
            return useOne(choice);
        case 4:
        case 5:
            return change();
        case 6:
            return choice >= 192 ? changeTimer() : change();
        default:
            return exchange(choice >= 192 ? choice >> 3 & 3 : kFullRoom);
    }
}

// Of a descriptor that is open or has been.
int Player::chooseFd() {
    if (ownerOfFd.empty()) return kFullRoom;
    const auto place = input.ConsumeIntegralInRange<size_t>(0, ownerOfFd.size() - 1);
    return std::next(ownerOfFd.begin(), static_cast<ptrdiff_t>(place))->first;
}

void Player::open() {
    if (descriptors.all().size() + 2 > kMostOpen) return;
    const std::map<int, OpenDescriptor> before = descriptors.all();
    const auto kind = input.ConsumeIntegralInRange<int>(0, kDescriptorKinds - 1);
    descriptors.openPair(static_cast<DescriptorKind>(kind), input.ConsumeBool());
    for (const auto& [fd, descriptor] : descriptors.all())
        if (!before.contains(fd)) ownerOfFd[fd] = ++lastOwner;
}

void Player::closeOne() {
    const int fd = chooseFd();
    if (!descriptors.find(fd)) return;
    model.forget(fd);
    descriptors.close(fd);
}

void Player::duplicateOne() {
    const int fd = chooseFd();
    if (!descriptors.find(fd) || descriptors.all().size() == kMostOpen) return;
    const std::map<int, OpenDescriptor> before = descriptors.all();
    descriptors.duplicate(fd);
    for (const auto& [copy, descriptor] : descriptors.all())
        if (!before.contains(copy)) ownerOfFd[copy] = ++lastOwner;
}

void Player::useOne(uint8_t choice) {
    static const std::string bytes(65536, 'x');
    constexpr size_t kSizes[] = {1, 100, 4096, 65536};
    const int fd = chooseFd();
    if (!descriptors.find(fd)) return;
    const auto size = kSizes[choice >> 3 & 3];
    switch (choice >> 5) {
        case 0:
        case 1:
            if (isOutOfBandUnseen) model.doubtUnixCounts();
            return descriptors.read(fd, size);
        case 2:
            isOutOfBandUnseen = true;
            return descriptors.sendOutOfBand(fd);
        case 3:
            return descriptors.write(fd, {bytes.data(), size});
        case 4:
            return descriptors.write(fd, {});
        case 5:
            return descriptors.fill(fd, {bytes.data(), size});
        case 6:
            return descriptors.moveTo(fd, static_cast<off_t>(size) - 1);
        default:
            return descriptors.shutDown(fd, (choice >> 3 & 3) % 3);
    }
}

void Player::change() {
    constexpr uint16_t kFlags[] = {EV_ADD, EV_ADD | EV_ENABLE,  EV_ADD | EV_ONESHOT, EV_DELETE,
                                   EV_ADD, EV_ADD | EV_ONESHOT, EV_ENABLE,           EV_EOF};
    const auto choice = input.ConsumeIntegral<uint8_t>();
    const int16_t filter = (choice & 8) != 0 ? EVFILT_WRITE : EVFILT_READ;
    Record change;
    EV_SET(&change, chooseFd(), filter, kFlags[choice & 7], 0, 0, nullptr);
    changes.push_back(change);
}

void Player::changeTimer() {
    constexpr int64_t kPeriods[] = {0, -1, 86'400'000, INT64_MAX};
    constexpr uint16_t kFlags[] = {EV_ADD, EV_ADD | EV_ONESHOT, EV_DELETE, EV_ENABLE};
    const auto choice = input.ConsumeIntegral<uint8_t>();
    Record change;
    EV_SET(&change, choice >> 6, EVFILT_TIMER, kFlags[choice & 3],
           (choice & 0x20) != 0 ? NOTE_BACKGROUND : 0, kPeriods[choice >> 2 & 3], nullptr);
    changes.push_back(change);
}

// With the owners of the moment: a change made for a number's last descriptor is not for the next.
Records Player::takeChanges() {
    for (Record& change : changes)
        change.udata =
            &owners.at(change.filter == EVFILT_TIMER ? change.ident : ownerOfFd[fdOf(change)]);
    return std::exchange(changes, {});
}

void Player::exchange(int room) {
    const Records given = takeChanges();
    std::vector<Errors> expected;
    expected.reserve(given.size());
    for (const Record& change : given)
        expected.push_back(model.apply(change));
    model.beginCall();
    Records records(static_cast<size_t>(room));
    const struct timespec noWait = {};
    const Statuses before = descriptors.statuses();
    const int count =
        kevent(queue, given.data(), static_cast<int>(given.size()), records.data(), room, &noWait);
    const int error = errno;
    const Statuses after = descriptors.statuses();
    if (count == -1) return checkFailedCall(expected, error, room);
    require(count <= room, "no more records than there is room for");
    records.resize(static_cast<size_t>(count));
    if (!checkFailures(given, expected, records, static_cast<size_t>(room))) {
        checkRecords(records, before, after, static_cast<size_t>(room));
        if (room == kFullRoom) isOutOfBandUnseen = false;
    }
    tryRoom(records);
}

void Player::checkFailedCall(const std::vector<Errors>& expected, int error, int room) const {
    require(room == 0, "a call fails when a change has and there is no room to say so");
    require(std::any_of(expected.begin(), expected.end(),
                        [error](const Errors& errors) { return errors.contains(error); }),
            "a call fails with the error of a change");
}

// They come first and in the order of the changes, as many as there is room for. Whether there are
// some besides those of additions that may also fail late, among other records.
bool Player::checkFailures(const Records& changes, const std::vector<Errors>& expected,
                           const Records& records, size_t room) {
    size_t failures = 0;
    bool isSure = false;
    for (size_t i = 0; i < changes.size(); ++i) {
        const bool mayBeLate = (changes[i].flags & EV_ADD) != 0 && expected[i].contains(0);
        if (failures < records.size()) {
            const Record& record = records[failures];
            if (record.flags == (changes[i].flags | EV_ERROR) && record.ident == changes[i].ident &&
                record.filter == changes[i].filter && record.udata == changes[i].udata &&
                expected[i].contains(record.data)) {
                ++failures;
                isSure = isSure || !mayBeLate;
                continue;
            }
        }
        if (!expected[i].contains(0))
            requireOf(changes[i], failures == room, "a change that fails has a record");
    }
    if (isSure) require(failures == records.size(), "with a failure there are no other records");
    return isSure;
}

void Player::checkRecords(const Records& records, const Statuses& before, const Statuses& after,
                          size_t room) {
    std::set<Key> ready = model.findReady(before, after);
    std::set<Key> seen;
    bool failed = false;
    for (const Record& record : records) {
        const Key key = {record.ident, record.filter};
        const bool isFailure = (record.flags & EV_ERROR) != 0;
        requireOf(record, isFailure || seen.insert(key).second, "a filter has one record");
        failed = failed || isFailure;
        ready.erase(key);
        model.check(record, before, after);
    }
    if (!failed && !ready.empty() && records.size() < room)
        refute("what is ready has a record: ident " + std::to_string(ready.begin()->first) +
               ", filter " + std::to_string(ready.begin()->second));
}

// Writes what there is said to be room for, now and then. To one descriptor, as two may share it.
void Player::tryRoom(const Records& records) {
    for (const Record& record : records) {
        const OpenDescriptor* descriptor = descriptors.find(fdOf(record));
        if (record.filter != EVFILT_WRITE || !descriptor || isAlwaysReady(descriptor->kind) ||
            (record.flags & (EV_ERROR | EV_EOF)) != 0 || !input.ConsumeBool())
            continue;
        const std::string bytes(static_cast<size_t>(record.data), 'x');
        const ssize_t written = write(fdOf(record), bytes.data(), bytes.size());
        requireOf(record, written == record.data || (written == -1 && errno != EAGAIN),
                  "there is room for what is promised, but for " + std::to_string(written));
        return;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    std::signal(SIGPIPE, SIG_IGN);
    prepareDescriptors();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    Player(input).play();
    return 0;
}
