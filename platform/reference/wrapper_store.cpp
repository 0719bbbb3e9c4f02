// The store's records: a group of operations is checked as a whole, then carried out in one transaction.

// These names are all that the library shows; everything else in it is hidden.
#pragma GCC visibility push(default)
#include "wrapper.h"
#pragma GCC visibility pop

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <span>

#include "store_db.h"
#include "store_objects.h"

namespace {

enum class Action { kPut, kGet, kRemoveAccount, kClearAccounts };

struct Operation {
    const Record *record;  // null: no such object
    Action action;
};

using Group = std::span<const WrpOpEntry>;

[[nodiscard]] Operation _look_up(uintptr_t objectId) {
    if (objectId == WRP_ACCOUNT_REMOVE) {
        return {&kAccountRecord, Action::kRemoveAccount};
    }
    if (objectId == WRP_ACCOUNT_DELETE_ALL) {
        return {&kAccountRecord, Action::kClearAccounts};
    }
    for (const Record &record : kRecords) {
        if (objectId == record.writeId) {
            return {&record, Action::kPut};
        }
        if (objectId == record.readId) {
            return {&record, Action::kGet};
        }
    }
    return {nullptr, Action::kGet};
}

// A length that differs shows a caller with another idea of the record: nothing is copied for it, not
// even the part that would fit.
[[nodiscard]] bool _fits(const WrpOpEntry &entry, int direction) {
    const Operation operation = _look_up(entry.objectId);
    if (operation.record == nullptr || (operation.action == Action::kGet) != (direction == WRP_READ)) {
        return false;
    }
    const bool noInput = entry.input == 0 && entry.inputLength == 0;
    const bool noOutput = entry.output == 0 && entry.outputLength == 0;
    if (operation.action == Action::kClearAccounts) {
        return noInput && noOutput;
    }
    if (direction == WRP_READ) {
        return noInput && entry.output != 0 && entry.outputLength == operation.record->size;
    }
    return noOutput && entry.input != 0 && entry.inputLength == operation.record->size;
}

[[nodiscard]] std::span<unsigned char> _output(const WrpOpEntry &entry) {
    return {std::bit_cast<unsigned char *>(entry.output), entry.outputLength};
}

[[nodiscard]] std::span<const unsigned char> _input(const WrpOpEntry &entry) {
    return {std::bit_cast<const unsigned char *>(entry.input), entry.inputLength};
}

// Writers leave the count at 0; an account without a user name is none.
void _fill_count(std::span<unsigned char> account) {
    const int32_t count = account[kAccountNameOffset] != '\0' ? 1 : 0;
    memcpy(account.data(), &count, sizeof(count));
}

[[nodiscard]] bool _remove_account(StoreDb *store, std::span<const unsigned char> account) {
    std::array<unsigned char, kAccountRecord.size> stored;
    if (!store->get(kAccountRecord.name, stored)) {
        return false;
    }
    const auto *const name = reinterpret_cast<const char *>(account.data()) + kAccountNameOffset;
    const auto *const storedName = reinterpret_cast<const char *>(stored.data()) + kAccountNameOffset;
    return strncmp(name, storedName, kAccountNameSize) != 0 || store->erase(kAccountRecord.name);
}

[[nodiscard]] bool _apply(StoreDb *store, const WrpOpEntry &entry) {
    const Operation operation = _look_up(entry.objectId);
    switch (operation.action) {
        case Action::kGet:
            return store->get(operation.record->name, _output(entry));
        case Action::kPut:
            return store->put(operation.record->name, _input(entry));
        case Action::kRemoveAccount:
            return _remove_account(store, _input(entry));
        case Action::kClearAccounts:
            return store->erase(kAccountRecord.name);
    }
    return false;
}

// Reading and writing are called with the store, so that its reason outlasts a failure.
[[nodiscard]] bool _read(StoreDb &store, Group group) {
    const StoreDb::Opened opened = store.open(StoreDb::Mode::kRead);
    if (opened == StoreDb::Opened::kFailed) {
        return false;
    }
    for (const WrpOpEntry &entry : group) {
        const std::span<unsigned char> output = _output(entry);
        if (opened == StoreDb::Opened::kEmpty) {
            std::fill(output.begin(), output.end(), static_cast<unsigned char>(0));
        } else if (!_apply(&store, entry)) {
            return false;
        }
        if (_look_up(entry.objectId).record == &kAccountRecord) {
            _fill_count(output);
        }
    }
    return true;
}

[[nodiscard]] bool _write(StoreDb &store, Group group) {
    return store.open(StoreDb::Mode::kWrite) == StoreDb::Opened::kReady &&
           std::all_of(group.begin(), group.end(),
                       [&store](const WrpOpEntry &entry) { return _apply(&store, entry); }) &&
           store.commit();
}

}  // namespace

int wrpOpGrpDo(WrpOpEntry *entries, int length, int direction) {
    constexpr int kEntrySize = sizeof(WrpOpEntry);
    if (entries == nullptr || length <= 0 || length % kEntrySize != 0 ||
        (direction != WRP_READ && direction != WRP_WRITE)) {
        return kStoreBadCall;
    }
    const Group group(entries, static_cast<size_t>(length / kEntrySize));
    if (!std::all_of(group.begin(), group.end(),
                     [direction](const WrpOpEntry &entry) { return _fits(entry, direction); })) {
        return kStoreBadCall;
    }
    int fault = 0;
    {
        StoreDb store;
        if (direction == WRP_READ ? _read(store, group) : _write(store, group)) {
            return 0;
        }
        fault = store.fault();
    }
    errno = fault;  // for who wants to tell it; closing the store may have changed it
    return kStoreFailed;
}

// The store keeps no pool in memory. Nothing is opened here: most programs that start never read a record.
void wrpMemPoolMonitor(void) {}
