// A journal that may be given away. The values of the members in secret.h, and mail addresses, become
// pseudonyms, the same for the same value from the first line to the last. Bytes that are no JSON are
// replaced by as many others. report() names the members whose texts were kept and may be secret.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "journal.h"

namespace emulator {

class Mask {
public:
    /// Looks through the whole journal first: a password may stand in a line before the message that shows
    /// that it is one.
    explicit Mask(const std::vector<json> &records);

    /// The record's line, masked, without a newline.
    [[nodiscard]] std::string line(json record);

    /// For people, in a few lines: how many secrets the journal has, and what line() has kept and taken out
    /// so far.
    [[nodiscard]] std::string report() const;

private:
    void _learn(std::string_view kind, const std::string &secret);
    void _mask_words(json &words);
    [[nodiscard]] bool _mask_value(const std::string &member, json &value);
    [[nodiscard]] std::string _without_secrets(std::string text) const;

    std::map<std::string, std::string> pseudonyms_;  // by secret
    std::vector<std::string> longest_first_;
    std::map<std::string, size_t, std::less<>> counts_;  // of secrets, by kind
    std::map<std::string, size_t> kept_;                 // texts that may be anything, by member
    size_t blanked_ = 0;
};

}  // namespace emulator
