// Says whether a message is the one of a record. Ids of the device, and what a pseudonym stands for, may
// differ from the record, but then by the same value in all messages: the one that comes first. Answers of
// the record are translated to it.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "conversation.h"

namespace emulator {

/// The first place where two messages differ.
struct Difference {
    std::string where;  ///< "request.params.alias", or what there is in words
    std::string then;   ///< the record's text
    std::string now;    ///< "" where there is nothing
};

class Matcher {
public:
    /// Compares two bodies, and remembers what now stands for the record's ids and pseudonyms.
    /// @return nothing when they are the same.
    [[nodiscard]] std::optional<Difference> compare(int type, const std::string &then, int typeNow,
                                                    const std::string &now);

    /// A body of the record with what stands for its pseudonyms and ids now.
    [[nodiscard]] std::string translate(const std::string &body) const;

private:
    [[nodiscard]] std::string _differs(const json &then, const json &now, const std::string &path,
                                       const std::string &member);
    [[nodiscard]] bool _text_fits(const std::string &then, const std::string &now, const std::string &member);
    [[nodiscard]] bool _bind(const std::string &then, const std::string &now);

    std::map<std::string, std::string> bound_;
};

}  // namespace emulator
