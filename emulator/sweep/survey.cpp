#include "survey.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <ctime>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "firmware.h"
#include "namespace.h"
#include "scene.h"
#include "system_calls.h"

namespace emulator::sweep {
namespace {

constexpr std::chrono::milliseconds kClockStep{10};
constexpr std::array kSizes{1, 64, 256, 1024, 4096, 16384, 65536};

// The device restarts by itself once the program has asked for it; here it has only to forget that.
void _forget_restart() {
    unlink((std::string(kFlashPath) + "/restart").c_str());
}

Outcome _good_run(Stage &stage, bool traced) {
    Strike strike;
    strike.traced = traced;
    strike.watchdog = stage.setup().watchdog;
    Outcome outcome = run_struck(stage.device(), stage.words(), strike);
    _forget_restart();
    return outcome;
}

void _take_names(Good &good) {
    for (const std::string &path : Stage::names()) {
        good.names.insert(path);
    }
}

void _note(Good &good, Stage &stage, const Outcome &outcome) {
    if (outcome.late ||
        (!outcome.restarted && (outcome.run.status != 0 || !is_one_number(outcome.run.out)))) {
        throw std::runtime_error("the good run is none: it printed \"" + outcome.run.out + "\", status " +
                                 std::to_string(outcome.run.status) + ", signal " +
                                 std::to_string(outcome.run.signal) + (outcome.late ? ", late " : " ") +
                                 outcome.run.err);
    }
    good.printed.insert(outcome.run.out);
    good.open.insert(outcome.open.begin(), outcome.open.end());
    good.states.push_back(stage.state());
    _take_names(good);
}

// A record that holds a time differs between two equal runs only when they are not of one second. By the
// clock that the program asks, which lags behind the exact one by a tick.
void _await_other_second(std::time_t second) {
    while (std::time(nullptr) == second) {
        std::this_thread::sleep_for(kClockStep);
    }
}

// Records that two equal runs leave otherwise (a time, say) cannot be compared.
void _find_moving(Good &good, const json &first, const json &second) {
    for (const auto &[record, value] : first.items()) {
        if (!second.contains(record) || second.at(record) != value) {
            good.moving.insert(record);
        }
    }
}

bool _wanted(const std::vector<std::string> &kinds, std::string_view kind) {
    return std::find(kinds.begin(), kinds.end(), kind) != kinds.end();
}

void _call_points(const std::map<std::string, int> &calls, bool memory, std::vector<Point> &points) {
    constexpr std::array<std::string_view, 3> kAllocators{"malloc", "calloc", "realloc"};  // are "any"
    for (const auto &[name, number] : calls) {
        if ((name == "any") != memory ||
            std::find(kAllocators.begin(), kAllocators.end(), name) != kAllocators.end()) {
            continue;
        }
        for (int each = 1; each <= number; ++each) {
            points.push_back({memory ? "memory" : "calls", name, each, "once"});
            points.push_back({memory ? "memory" : "calls", name, each, "ever"});
        }
    }
    for (const int size : kSizes) {
        if (memory) {
            points.push_back({"memory", "over", size, "ever"});
        }
    }
}

void _system_points(const Trace &trace, bool kills, std::vector<Point> &points) {
    for (const SystemCall &call : kSystemCalls) {
        const auto found = trace.after.find(call.name);
        for (int each = 1; found != trace.after.end() && each <= found->second; ++each) {
            if (kills) {
                points.push_back({"kills", call.name, each, "kill"});
                continue;
            }
            std::istringstream errors(call.errors);
            for (std::string error; errors >> error;) {
                points.push_back({"syscalls", call.name, each, error});
            }
        }
    }
}

void _append(std::vector<Point> &points, const std::vector<Point> &more) {
    points.insert(points.end(), more.begin(), more.end());
}

}  // namespace

Survey survey(Stage &stage, const std::vector<std::string> &kinds) {
    Survey result;
    Good &good = result.good;
    stage.prepare();
    const Files oldFiles = Stage::files();
    good.states.push_back(stage.state());
    _take_names(good);
    good.names.insert(kPartialImage);
    const auto begin = std::chrono::steady_clock::now();
    const Outcome first = _good_run(stage, false);
    const auto time = std::chrono::steady_clock::now() - begin;
    result.milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
    const std::vector<json> journal = stage.device().journal().all();
    const std::time_t firstSecond = std::time(nullptr);
    _note(good, stage, first);
    good.reported = first.reported;
    const Files newFiles = Stage::files();
    const json firstState = good.states.back();

    // The runs after it: when all of it was done, when only the cloud's part was, when only the device's was.
    _note(good, stage, _good_run(stage, false));
    Stage::put_files(oldFiles);
    _note(good, stage, _good_run(stage, false));
    stage.prepare();
    Stage::put_files(newFiles);
    _note(good, stage, _good_run(stage, false));

    _await_other_second(firstSecond);
    stage.prepare();
    const bool traced = _wanted(kinds, "syscalls") || _wanted(kinds, "kills") || _wanted(kinds, "files");
    const Outcome second = _good_run(stage, traced);
    _note(good, stage, second);
    _find_moving(good, firstState, good.states.back());

    const Trace trace = read_trace(second.trace);
    result.skipped = trace.before;
    for (const bool memory : {false, true}) {
        if (good.reported && _wanted(kinds, memory ? "memory" : "calls")) {
            _call_points(first.calls, memory, result.points);
        }
    }
    for (const bool kills : {false, true}) {
        if (good.reported && _wanted(kinds, kills ? "kills" : "syscalls")) {
            _system_points(trace, kills, result.points);
        }
    }
    if (_wanted(kinds, "broker")) {
        _append(result.points, broker_points(journal));
    }
    if (_wanted(kinds, "files")) {
        _append(result.points, file_points(trace.paths));
    }
    return result;
}

Verdict judge_point(Stage &stage, const Survey &survey, const Point &point) {
    Verdict verdict;
    const auto add = [&](const std::vector<Fall> &falls) {
        verdict.falls.insert(verdict.falls.end(), falls.begin(), falls.end());
    };
    stage.prepare();
    Outcome outcome;
    {
        Scene scene(stage, point);
        outcome = run_struck(stage.device(), stage.words(),
                             strike_of(point, survey.skipped, stage.setup().watchdog));
        scene.end();
    }
    _forget_restart();
    verdict.struck = outcome.struck || point.kind == "broker" || point.kind == "files";
    add(judge_run(point, survey.good, outcome));
    add(judge_device(point, survey.good, stage));
    for (const std::string &path : Stage::names()) {
        // Documented: the lock file of a killed command is removed by hand, or with "/tmp" at the restart.
        if (point.kind == "kills" && path.ends_with(".lock")) {
            unlink(path.c_str());
        }
    }
    end_other_processes();  // one that was left has fallen; the next run is not to meet it
    add(judge_next(point, survey.good, _good_run(stage, false), stage));
    return verdict;
}

}  // namespace emulator::sweep
