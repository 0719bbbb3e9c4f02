// A journal as a sequence of arrows between lanes: what the views on terminal and page draw. Messages are
// named by what they carry (method, code), and what the journal only implies is added: a request that the
// broker takes goes on to the cloud, an answer comes from there.
#pragma once

#include <array>
#include <map>
#include <string>
#include <vector>

#include "journal.h"

namespace emulator {

enum class Lane : size_t { kProgram, kBroker, kCloud, kDaemon, kImages, kScripts, kConsole };
inline constexpr std::array kLaneNames{"program", "broker", "cloud", "kmpd", "images", "scripts", "console"};

struct Arrow {
    enum class Style {
        kPlain,
        kImplied,  ///< follows from what the journal has, at the same time
        kLost,     ///< never arrived
        kNote,     ///< no arrow: a line across all lanes
    };
    Lane from = Lane::kProgram;
    Lane to = Lane::kProgram;
    Style style = Style::kPlain;
    std::string label;   ///< valid UTF-8 without control characters
    bool fault = false;  ///< scripted, injected or found
};

class Sequence {
public:
    /// The arrows of the next record; none for one that adds nothing (an event, which its message tells).
    [[nodiscard]] std::vector<Arrow> arrows(const json &record);

private:
    [[nodiscard]] std::vector<Arrow> _message(const json &record);
    [[nodiscard]] std::string _name(const json &record, const json &body);

    std::map<int, std::string> methods_;         // of requests, by id
    std::map<int, std::string> last_submitted_;  // the method, by connection, until its id is known
};

/// A text on one line, safe for a terminal: control characters and what is no UTF-8 are replaced.
[[nodiscard]] std::string printable(const std::string &text);

/// The object or list that a text holds, with texts in it that hold one replaced by that; else the text.
[[nodiscard]] json unfolded(const std::string &text);

/// The bytes of a message's record as they went over the socket; "" where the record does not have them.
[[nodiscard]] std::string wire_bytes(const json &record);

}  // namespace emulator
