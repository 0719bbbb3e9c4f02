#include "judge.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <thread>

namespace emulator::sweep {
namespace {

constexpr std::chrono::seconds kScriptTime{2};

// A process that is killed may leave files. They count only when the next run leaves them there.
bool _was_killed(const Point &point) {
    return point.kind == "kills";
}

// A reply with a flipped bit may be stored as it is. The state is then neither old nor new: not judged.
bool _was_lied_to(const Point &point) {
    return point.kind == "broker" && point.fault == "lie";
}

std::string _short(const std::string &text) {
    constexpr size_t kMost = 400;
    return text.size() <= kMost ? text : text.substr(0, kMost) + "...";
}

std::string _ending(const Outcome &outcome) {
    return "printed \"" + _short(outcome.run.out) + "\", status " + std::to_string(outcome.run.status) +
           ", signal " + std::to_string(outcome.run.signal) + ' ' + _short(outcome.run.err);
}

// Names that no good run leaves, nor the fault itself. A killed run may leave one for each file that it
// wrote, named after it: the next write of that file takes it away, and the next run need not write it. What
// could not be removed stays: by one failure one name.
void _judge_names(const Point &point, const Good &good, std::vector<Fall> &falls) {
    std::set<std::string> excused;
    bool refused = false;
    for (const std::string &path : Stage::names()) {
        const bool ofFault = point.kind == "files" && point.place != "/tmp" && path.starts_with(point.place);
        const std::string written = path.substr(0, path.rfind('.', path.rfind('.') - 1));  // NAME.PID.COUNT
        const bool ofKill =
            _was_killed(point) && good.names.contains(written) && excused.insert(written).second;
        if (good.names.contains(path) || ofFault || ofKill) {
            continue;
        }
        const bool mayStay =
            point.place == "unlink" && !_was_killed(point) && (point.fault == "ever" || !refused);
        refused = refused || mayStay;
        if (!mayStay) {
            falls.push_back({path.ends_with(".lock") ? "lock" : "temporary", path});
        }
    }
}

// The script that takes new settings up is started without waiting for its end.
std::vector<std::string> _left_running() {
    const auto deadline = std::chrono::steady_clock::now() + kScriptTime;
    std::vector<std::string> left = Stage::running();
    while (!left.empty() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        left = Stage::running();
    }
    return left;
}

void _judge_state(const char *judgement, const Good &good, const json &state, std::vector<Fall> &falls) {
    for (const auto &[part, value] : state.items()) {
        const auto isSo = [&name = part, &now = value](const json &allowed) {
            return allowed.contains(name) && allowed.at(name) == now;
        };
        // A store that cannot be read counts as no account, for which mode 0 is right until the next run.
        const bool noAccount = part == "the broker's mode" && value == 0 && judgement == std::string("state");
        if (!noAccount && !good.moving.contains(part) &&
            std::none_of(good.states.begin(), good.states.end(), isSo)) {
            falls.push_back({judgement, part + " is neither old nor new: " + _short(dump(value))});
        }
    }
}

}  // namespace

bool is_one_number(const std::string &printed) {
    const auto isBlank = [](unsigned char each) { return std::isspace(each) != 0; };
    const auto isDigit = [](unsigned char each) { return std::isdigit(each) != 0; };
    auto begin = std::find_if_not(printed.begin(), printed.end(), isBlank);
    begin += begin != printed.end() && *begin == '-' ? 1 : 0;
    const auto end = std::find_if_not(begin, printed.end(), isDigit);
    return begin != end && std::all_of(end, printed.end(), isBlank);
}

std::vector<Fall> judge_run(const Point &point, const Good &good, const Outcome &outcome) {
    std::vector<Fall> falls;
    if (outcome.late) {
        falls.push_back({"time", "killed by the watchdog; " + _ending(outcome)});
    } else if (!_was_killed(point) && !outcome.restarted) {
        if (!outcome.output_struck && !is_one_number(outcome.run.out)) {
            falls.push_back({"printed", _ending(outcome)});
        }
        if (outcome.run.signal != 0) {
            falls.push_back({"signal", _ending(outcome)});
        } else if (outcome.run.status != 0) {
            falls.push_back({"status", _ending(outcome)});
        }
    }
    // A close that did not happen leaves what it was to close; a restart comes in the middle of anything.
    if (outcome.reported && !outcome.restarted && !(point.kind == "syscalls" && point.place == "close")) {
        for (const std::string &target : outcome.open) {
            if (!good.open.contains(target)) {
                falls.push_back({"descriptor", target});
            }
        }
    }
    return falls;
}

std::vector<Fall> judge_device(const Point &point, const Good &good, Stage &stage) {
    std::vector<Fall> falls;
    for (const std::string &process : _left_running()) {
        falls.push_back({"process", process});
    }
    for (const std::string &lock : Stage::locked()) {
        falls.push_back({"lock", lock});
    }
    // No line is looked for where something else stands in their file's place.
    const bool lines = point.kind != "files" || point.place != kPasswdPath;
    for (const std::string &text : stage.harmed(lines)) {
        falls.push_back({"others", text});
    }
    if (!_was_killed(point)) {
        _judge_names(point, good, falls);
    }
    if (!_was_lied_to(point)) {
        _judge_state("state", good, stage.state(), falls);
    }
    return falls;
}

std::vector<Fall> judge_next(const Point &point, const Good &good, const Outcome &outcome, Stage &stage) {
    std::vector<Fall> falls;
    const bool number = is_one_number(outcome.run.out);
    const bool fits = good.printed.contains(outcome.run.out) || (number && _was_lied_to(point));
    if (outcome.late || (!outcome.restarted && (!fits || outcome.run.status != 0))) {
        falls.push_back({"next", (outcome.late ? "killed by the watchdog; " : "") + _ending(outcome)});
    }
    if (_was_killed(point)) {
        _judge_names(point, good, falls);
    }
    if (!_was_lied_to(point)) {
        _judge_state("next", good, stage.state(), falls);
    }
    return falls;
}

}  // namespace emulator::sweep
