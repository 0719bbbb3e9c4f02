// The configuration store: records at every offset, groups, refusals, the account list, several processes.
#include <array>
#include <atomic>
#include <future>
#include <memory>
#include <thread>

#include "checks.h"
#include "store.h"

namespace emulator::check {
namespace {

using namespace std::string_literals;

constexpr const char *kKeeps =
    "A read gives back, byte for byte, what the last write of the record left; a record that was never "
    "written reads "
    "as zeros.";
constexpr const char *kWhole =
    "All entries of a group have one direction, and a group takes effect as a whole or not at all, also when "
    "its "
    "process is killed.";
constexpr const char *kRefuses =
    "A call that is wrong as it stands gets a code other than 0 and changes nothing: no entries, a length "
    "that is no "
    "multiple of an entry's, an unknown object or direction, an id of the other direction, a missing buffer, "
    "a length "
    "that is not the record's.";
constexpr const char *kBounded =
    "Nothing is written beyond the length of an output buffer, and input buffers stay as they are.";
constexpr const char *kAtOnce = "several processes may call them at once";

void _keeps_record(const Platform &platform, const Record &record) {
    Store store(platform);
    for (const unsigned seed : {1U, 2U}) {
        const std::string bytes = record_bytes(record, seed);
        store.put(record, bytes);
        if (record.read_id != 0) {
            const size_t own = record.write_id == kAccount.write_id ? kCountSize : 0;  // the store's own
            same_bytes(store.get(record).substr(own), bytes.substr(own),
                       std::string(record.name) + " less its count");
        }
    }
}

void _reads_zeros(const Platform &platform) {
    Store store(platform);
    for (const Record &record : kRecords) {
        if (record.read_id != 0) {
            same_bytes(store.get(record), std::string(record.size, '\0'), record.name);
        }
    }
}

// Store::group looks at the guard behind each output and at the inputs; this makes a call of each kind.
void _stays_in_bounds(const Platform &platform) {
    Store store(platform);
    for (const Record &record : kRecords) {
        store.put(record, record_bytes(record, 10));
        if (record.read_id != 0) {
            static_cast<void>(store.get(record));
        }
    }
}

void _outlasts(const Platform &platform) {
    const std::string bytes = pattern(kUpgrade.size, 3);
    Store(platform).put(kUpgrade, bytes);
    same_bytes(Store(platform).get(kUpgrade), bytes, kUpgrade.name);
}

void _group_is_stored(const Platform &platform) {
    Store store(platform);
    const std::string info = pattern(kUpgrade.size, 4);
    const std::string login = pattern(kLogin.size, 5);
    const std::string status = "\1\1";
    require(store.write({put_entry(kUpgrade, info), put_entry(kTime, pattern(kTime.size, 6)),
                         put_entry(kLogin, login), put_entry(kStatus, status)}) == 0,
            "a group of four was not stored");
    const Answer answer = store.group({get_entry(kStatus), get_entry(kLogin), get_entry(kUpgrade)}, kRead);
    require(answer.result == 0, "a group of three was not read");
    same_bytes(answer.out[0], status, kStatus.name);
    same_bytes(answer.out[1], login, kLogin.name);
    same_bytes(answer.out[2], info, kUpgrade.name);
}

// The first entry is good, the last one is not: nothing may be stored.
void _group_is_refused(const Platform &platform) {
    Store store(platform);
    store.put(kStatus, "\1\0"s);
    Entry cut = put_entry(kLogin, pattern(kLogin.size, 7));
    --cut.in_length;
    Entry unknown = put_entry(kLogin, pattern(kLogin.size, 7));
    unknown.id = 0x120099;
    for (const Entry &bad : {cut, unknown}) {
        require(store.write({put_entry(kStatus, "\0\1"s), bad}) != 0, "a group with a bad entry was taken");
        same_bytes(store.get(kStatus), "\1\0"s, "the record of its good entry");
    }
}

// A wrong call: how it differs from one that reads or writes the device's status.
struct BadCall {
    const char *name;
    int direction;
    std::function<void(Entry &entry, int &bytes, int &direction)> spoil;
    bool null_entries = false;
};

void _refuses(const Platform &platform, const BadCall &call) {
    Store store(platform);
    store.put(kStatus, "\1\2");
    Entry entry = call.direction == kRead ? get_entry(kStatus) : put_entry(kStatus, "\3\4");
    int bytes = static_cast<int>(kEntryWords * store.probe().word_size());
    int direction = call.direction;
    call.spoil(entry, bytes, direction);
    const Answer answer = store.group({entry}, direction, bytes, call.null_entries);
    require(answer.result != 0, "it was taken");
    require(call.null_entries || !entry.room || answer.out[0] == untouched(*entry.room),
            "its output was written to");
    same_bytes(store.get(kStatus), "\1\2", kStatus.name);
}

const std::vector<BadCall> &_bad_calls() {
    static const std::vector<BadCall> kCalls{
        {"null-entries", kRead, [](Entry &, int &, int &) {}, true},
        {"length-zero", kRead, [](Entry &, int &bytes, int &) { bytes = 0; }},
        {"length-negative", kRead, [](Entry &, int &bytes, int &) { bytes = -bytes; }},
        {"length-one-off", kRead, [](Entry &, int &bytes, int &) { --bytes; }},
        {"unknown-direction", kRead, [](Entry &, int &, int &direction) { direction = 2; }},
        {"write-id-in-a-read", kRead, [](Entry &entry, int &, int &) { entry.id = kStatus.write_id; }},
        {"read-id-in-a-write", kWrite, [](Entry &entry, int &, int &) { entry.id = kStatus.read_id; }},
        {"unknown-object", kWrite, [](Entry &entry, int &, int &) { entry.id = 0x120099; }},
        {"no-output", kRead, [](Entry &entry, int &, int &) { entry.room.reset(); }},
        {"no-input", kWrite, [](Entry &entry, int &, int &) { entry.in.reset(); }},
    };
    return kCalls;
}

void _refuses_lengths(const Platform &platform) {
    Store store(platform);
    for (const Record &record : kRecords) {
        const std::string bytes = record_bytes(record, 8);
        store.put(record, bytes);
        for (const size_t length : {record.size - 1, record.size + 1, size_t{0}}) {
            const std::string what = std::string(record.name) + " with " + std::to_string(length) + " bytes";
            Entry put = put_entry(record, pattern(record.size + 1, 9));
            put.in_length = length;
            require(store.write({put}) != 0, what + " was taken");
            if (record.read_id != 0) {
                Entry get = get_entry(record);
                get.room = record.size + 1;
                get.out_length = length;
                require(store.group({get}, kRead).result != 0, what + " was read");
                same_bytes(store.get(record).substr(kCountSize % record.size),
                           bytes.substr(kCountSize % record.size), what);
            }
        }
    }
}

void _is_silent(const Platform &platform) {
    Store store(platform);
    static_cast<void>(store.probe().ask("monitor"));
    store.put(kStatus, "\1\2");
    store.group({put_entry(kStatus, "\1\2")}, 7);
    require(store.probe().printed().empty(), "it printed: " + store.probe().printed());
}

void _monitors(const Platform &platform) {
    Store store(platform);
    store.probe().ask("monitor");
    store.put(kStatus, "\1\2");
    same_bytes(store.get(kStatus), "\1\2", kStatus.name);
}

// Both records of a group carry one mark; a reader that sees two different marks has seen half of a group.
std::vector<Entry> _marked(char mark) {
    return {put_entry(kUpgrade, std::string(kUpgrade.size, mark)),
            put_entry(kLogin, std::string(kLogin.size, mark))};
}

char _mark(Store &store) {
    const Answer answer = store.group({get_entry(kUpgrade), get_entry(kLogin)}, kRead);
    require(answer.result == 0, "a group was not read: " + std::to_string(answer.result));
    const char mark = answer.out[0][0];
    require(
        answer.out[0] == std::string(kUpgrade.size, mark) && answer.out[1] == std::string(kLogin.size, mark),
        "a read found half of a group");
    return mark;
}

void _write_marked(Store &store, char mark) {
    const int result = store.write(_marked(mark));
    require(result == 0, "a group was not stored: " + std::to_string(result));
}

void _serves_several(const Platform &platform) {
    constexpr int kWrites = 40;
    Store reader(platform);
    _write_marked(reader, 1);
    std::atomic<int> busy = 2;
    std::vector<std::future<void>> writers;
    for (const char mark : {'\1', '\2'}) {
        writers.push_back(std::async(std::launch::async, [&platform, &busy, mark] {
            const std::shared_ptr<void> ended(nullptr, [&busy](void *) { --busy; });
            Store store(platform);
            for (int i = 0; i < kWrites; ++i) {
                _write_marked(store, mark);
            }
        }));
    }
    while (busy > 0) {
        static_cast<void>(_mark(reader));
    }
    for (std::future<void> &writer : writers) {
        writer.get();
    }
}

void _survives_kills(const Platform &platform) {
    constexpr int kRounds = 8;
    constexpr int kMarks = 100;
    Store after(platform);
    _write_marked(after, 1);
    for (int round = 0; round < kRounds; ++round) {
        std::atomic<int> stored = 0;
        Store doomed(platform);
        std::thread writer([&doomed, &stored] {
            try {
                for (int i = 0;; ++i) {
                    _write_marked(doomed, static_cast<char>(i % kMarks + 1));
                    stored = i + 1;
                    stored.notify_one();
                }
            } catch (const Failed &) {  // the kill
            }
        });
        stored.wait(0);
        for (int i = 0; i < round * 97 % 500; ++i) {
            std::this_thread::yield();  // to be at another place of the next write in each round
        }
        doomed.probe().kill();
        writer.join();
        const int last = (stored - 1) % kMarks + 1;
        const int mark = _mark(after);
        require(mark == last || mark == stored % kMarks + 1,
                "group " + std::to_string(last) +
                    " was stored, then the process killed: the next read found group " +
                    std::to_string(mark));
        _write_marked(after, 1);
    }
}

}  // namespace

Checks store_checks(const Platform &platform) {
    const auto with = [&platform](void (*work)(const Platform &)) {
        return [platform, work] { work(platform); };
    };
    Checks checks{
        {"store/exports", kPlatformPage, "all functions have C linkage",
         with([](const Platform &each) { Store{each}; })},
        {"store/zeros", kPlatformPage, kKeeps, with(_reads_zeros)},
    };
    for (const Record &record : kRecords) {
        checks.push_back({std::string("store/keeps/") + record.name, kPlatformPage, kKeeps,
                          [platform, &record] { _keeps_record(platform, record); }});
    }
    for (const BadCall &call : _bad_calls()) {
        checks.push_back({std::string("store/refuses/") + call.name, kPlatformPage, kRefuses,
                          [platform, &call] { _refuses(platform, call); }});
    }
    checks.insert(checks.end(),
                  {{"store/refuses/lengths", kPlatformPage, kRefuses, with(_refuses_lengths)},
                   {"store/bounds", kPlatformPage, kBounded, with(_stays_in_bounds)},
                   {"store/outlasts", kPlatformPage, "What was written outlasts the process that wrote it.",
                    with(_outlasts)},
                   {"store/group/stored", kPlatformPage, kWhole, with(_group_is_stored)},
                   {"store/group/refused", kPlatformPage, kWhole, with(_group_is_refused)},
                   {"store/group/killed", kPlatformPage, kWhole, with(_survives_kills)},
                   {"store/several", kPlatformPage, kAtOnce, with(_serves_several)},
                   {"store/silent", kPlatformPage, "nothing in them logs", with(_is_silent)},
                   {"store/monitor", kPlatformPage,
                    "`wrpMemPoolMonitor()` is called once at each program start.", with(_monitors)}});
    return checks;
}

}  // namespace emulator::check
