// The account list, which holds one.
#include "account_checks.h"

#include "checks.h"
#include "store.h"

namespace emulator::check {
namespace {

constexpr const char *kOneAccount =
    "There is room for one account: inserting another replaces it, removing takes away the one of exactly "
    "that name.";
void _counts(const Platform &platform) {
    Store store(platform);
    require(store.count_of(store.get(kAccount)) == 0, "the count of no account is not 0");
    store.put(kAccount, account_record("alice@example.com", "one"));
    require(store.count_of(store.get(kAccount)) == 1,
            "the count of one account is not 1 in the device's byte order");
}

void _replaces(const Platform &platform) {
    Store store(platform);
    store.put(kAccount, account_record("alice@example.com", "a longer password"));
    store.put(kAccount, account_record("bob", "two"));
    const std::string stored = store.get(kAccount);
    same_bytes(stored.substr(kCountSize), account_record("bob", "two").substr(kCountSize), kAccount.name);
    require(store.count_of(stored) == 1, "the count after a second insert is not 1");
}

void _removes(const Platform &platform) {
    Store store(platform);
    const auto remove = [&store](const std::string &name) {
        Entry entry = put_entry(kAccount, account_record(name, ""));
        entry.id = kRemoveAccount;
        return store.write({entry});
    };
    store.put(kAccount, account_record("bob", "two"));
    for (const char *other : {"Alice", "bo", "bobby", "BOB"}) {
        static_cast<void>(remove(other));  // whether there is one to remove is the store's to say
        require(store.count_of(store.get(kAccount)) == 1,
                std::string("bob went when ") + other + " was removed");
    }
    require(remove("bob") == 0, "bob was not removed");
    require(store.count_of(store.get(kAccount)) == 0, "bob is still there");
}

void _deletes(const Platform &platform) {
    Store store(platform);
    store.put(kAccount, account_record("bob", "two"));
    require(store.write({{kDeleteAccounts, std::nullopt, 0, std::nullopt, 0}}) == 0, "they were not deleted");
    same_bytes(store.get(kAccount), std::string(kAccount.size, '\0'), kAccount.name);
}

}  // namespace

Checks account_checks(const Platform &platform) {
    const auto row = [&platform](const char *name, const char *sentence, void (*work)(const Platform &)) {
        return Check{std::string("account/") + name, kPlatformPage, sentence,
                     [platform, work] { work(platform); }};
    };
    return {row("count", "`count`, signed: left 0 by writers, filled by the store on reads", _counts),
            row("replace", kOneAccount, _replaces), row("remove", kOneAccount, _removes),
            row("delete", "Deleting all accounts leaves a record of zeros.", _deletes)};
}

}  // namespace emulator::check
