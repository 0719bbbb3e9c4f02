#include "store.h"

#include "check.h"

namespace emulator::check {
namespace {

constexpr size_t kNameOffset = 4;
constexpr size_t kNameLetters = 128;
constexpr size_t kPasswordOffset = 133;
constexpr size_t kPasswordLetters = 512;

}  // namespace

Entry put_entry(const Record &record, const std::string &bytes) {
    return {record.write_id, bytes, bytes.size(), std::nullopt, 0};
}

Entry get_entry(const Record &record) {
    return {record.read_id, std::nullopt, 0, record.size, record.size};
}

std::string record_bytes(const Record &record, unsigned seed) {
    if (record.write_id == kAccount.write_id) {
        return account_record(letters(kNameLetters, seed), letters(kPasswordLetters, seed + 1));
    }
    return pattern(record.size, seed);
}

std::string account_record(const std::string &name, const std::string &password) {
    std::string record(kAccount.size, '\0');
    record.replace(kNameOffset, name.size(), name);
    record.replace(kPasswordOffset, password.size(), password);
    return record;
}

void same_bytes(const std::string &got, const std::string &expected, const std::string &what) {
    for (size_t i = 0; i < expected.size(); ++i) {
        require(i < got.size() && got[i] == expected[i], what + " differs at offset " + std::to_string(i));
    }
}

Answer Store::group(const std::vector<Entry> &entries, int direction, std::optional<int> bytes, bool null) {
    const auto right = static_cast<int>(kEntryWords * probe_.word_size() * entries.size());
    std::string call = "group " + std::to_string(bytes.value_or(right)) + " " + std::to_string(direction) +
                       " " + (null ? "-1" : std::to_string(entries.size()));
    for (const Entry &entry : null ? std::vector<Entry>() : entries) {
        call += " " + std::to_string(entry.id) + " " + coded(entry.in) + " " +
                std::to_string(entry.in_length) + " " + (entry.room ? std::to_string(*entry.room) : "-") +
                " " + std::to_string(entry.out_length);
    }
    const std::vector<std::string> words = probe_.ask(call);
    require(words.back() == "same", "it changed an input buffer");
    Answer answer{std::stoi(words.front()), {}};
    for (size_t i = 1; i + 1 < words.size(); ++i) {
        answer.out.push_back(output_of(words[i]));
    }
    return answer;
}

void Store::put(const Record &record, const std::string &bytes) {
    const int result = write({put_entry(record, bytes)});
    require(result == 0, std::string(record.name) + " was not stored: " + std::to_string(result));
}

std::string Store::get(const Record &record) {
    const Answer answer = group({get_entry(record)}, kRead);
    require(answer.result == 0, std::string(record.name) + " was not read: " + std::to_string(answer.result));
    return answer.out.at(0);
}

int Store::count_of(const std::string &account) const {
    const std::string zeros(kCountSize, '\0');
    std::string one = zeros;
    one[probe_.big_endian() ? kCountSize - 1 : 0] = 1;
    const std::string count = account.substr(0, kCountSize);
    return count == one ? 1 : count == zeros ? 0 : -1;
}

}  // namespace emulator::check
