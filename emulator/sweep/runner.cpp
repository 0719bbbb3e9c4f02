#include "runner.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "namespace.h"
#include "stage.h"
#include "system_calls.h"

namespace emulator::sweep {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::milliseconds kLookEvery{5};
constexpr std::chrono::seconds kScripts{20};  // that the program leaves in the background
constexpr const char *kBegin = "\"/dev/.sweep\"";
const std::string kReport = std::string(kPrivateFolder) + "/sweep_report";
const std::string kTrace = std::string(kPrivateFolder) + "/sweep_trace";

// Beside this program where both were built, or where packages put it.
std::string _fault_library() {
    const fs::path folder = fs::read_symlink("/proc/self/exe").parent_path();
    for (const char *place : {".", SWEEP_INSTALLED_IN}) {
        if (const fs::path library = folder / place / "libsweep_fault.so"; fs::exists(library)) {
            return fs::canonical(library);
        }
    }
    throw std::runtime_error("libsweep_fault.so is not beside this program");
}

void _read_report(Outcome &outcome) {
    std::ifstream file(kReport);
    for (std::string line; std::getline(file, line);) {
        const size_t blank = line.find(' ');
        const size_t last = line.rfind(' ');
        const std::string kind = line.substr(0, blank);
        const std::string text = line.substr(blank + 1, last - blank - 1);
        const int number = std::atoi(line.substr(last + 1).c_str());
        if (kind == "call") {
            outcome.calls[text] = number;
        } else if (kind == "open") {
            outcome.open.push_back(text.substr(0, text.find(':')));  // "socket:[123]"
        } else if (kind == "hit") {
            outcome.struck = true;
            outcome.output_struck = number == STDOUT_FILENO;
        } else if (kind == "end") {
            outcome.reported = true;
        }
    }
}

pid_t _child_of(pid_t parent) {
    for (const auto &entry : fs::directory_iterator("/proc")) {
        const pid_t pid = static_cast<pid_t>(std::atoi(entry.path().filename().c_str()));
        const std::string status = pid > 0 ? content(entry.path() / "stat") : "";
        if (status.find(") ") != std::string::npos &&
            std::atoi(status.c_str() + status.rfind(')') + std::strlen(") S ")) == parent) {
            return pid;
        }
    }
    return parent;
}

// Until the end, the watchdog, or the restart that a firmware command asks for and then waits for.
void _await_end(Process &program, const Strike &strike, Outcome &outcome) {
    const auto deadline = std::chrono::steady_clock::now() + strike.watchdog;
    while (program.running()) {
        if (!outcome.restarted && Device::restart_due()) {
            outcome.restarted = true;
            // The library of faults reports then; the tracer, whose child it is, writes its trace.
            ::kill(strike.traced ? _child_of(program.pid()) : program.pid(), SIGUSR2);
        }
        if (std::chrono::steady_clock::now() > deadline) {
            outcome.late = !outcome.restarted;
            ::kill(-program.pid(), SIGKILL);  // a tracer's child, too
            break;
        }
        std::this_thread::sleep_for(kLookEvery);
    }
    outcome.run = program.wait();
}

// The program as it is started: by the tracer, with the library in it, or by itself.
std::vector<std::string> _start_words(std::vector<std::string> words, const Strike &strike,
                                      std::vector<std::pair<std::string, std::string>> &environment) {
    const bool inside = runs_in_another(words);
    if (words.at(0) == "cloud_msg") {
        std::vector<std::string> command = cloud_msg_command();
        command.insert(command.end(), words.begin() + 1, words.end());
        words = std::move(command);
    }
    if (!inside) {
        environment.insert(environment.end(), strike.environment.begin(), strike.environment.end());
        environment.emplace_back("LD_PRELOAD", _fault_library());
        environment.emplace_back("SWEEP_REPORT", kReport);
    }
    if (!strike.traced) {
        return words;
    }
    std::vector<std::string> traced{"strace", "-o", kTrace};
    if (strike.inject.empty()) {
        traced.insert(traced.end(), {"-e", "trace=" + system_call_names()});
    } else {
        traced.insert(traced.end(), {"-e", "trace=" + strike.inject.substr(0, strike.inject.find(':')), "-e",
                                     "inject=" + strike.inject});
    }
    for (const auto &[name, value] : environment) {
        traced.emplace_back("-E");  // the tracer itself goes without
        traced.push_back(std::string(name).append("=").append(value));
    }
    environment.clear();
    traced.emplace_back("--");
    traced.insert(traced.end(), words.begin(), words.end());
    return traced;
}

}  // namespace

bool runs_in_another(const std::vector<std::string> &words) {
    return words.at(0) == "cloud_msg" && cloud_msg_command().size() > 1;
}

Strike strike_of(const Point &point, const std::map<std::string, int> &skipped,
                 std::chrono::milliseconds watchdog) {
    Strike strike;
    strike.watchdog = watchdog;
    const std::string number = std::to_string(point.number);
    if (point.kind == "calls" || point.kind == "memory") {
        const bool over = point.place == "over";
        strike.environment = {{"SWEEP_CALL", over ? "any" : point.place},
                              {"SWEEP_NUMBER", over ? "1" : number},
                              {"SWEEP_EVER", point.fault == "ever" ? "1" : "0"},
                              {"SWEEP_OVER", over ? number : "0"}};
    } else if (point.kind == "syscalls" || point.kind == "kills") {
        const auto before = skipped.find(point.place);
        const int which = point.number + (before == skipped.end() ? 0 : before->second);
        const std::string effect = point.kind == "kills" ? "signal=KILL" : "error=" + point.fault;
        strike.traced = true;
        strike.inject = point.place + ':' + effect + ":when=" + std::to_string(which);
    }
    return strike;
}

Outcome run_struck(Device &device, const std::vector<std::string> &words, const Strike &strike) {
    fs::remove(kReport);
    fs::remove(kTrace);
    RunOptions options;
    options.watchdog = strike.watchdog + kWatchdog;
    // The library stands before a sanitizer's; and what is traced cannot be searched for leaks.
    const char *const asan = std::getenv("ASAN_OPTIONS");
    options.environment.emplace_back("ASAN_OPTIONS", std::string(asan != nullptr ? asan : "") +
                                                         ":verify_asan_link_order=0" +
                                                         (strike.traced ? ":detect_leaks=0" : ""));
    const std::vector<std::string> start = _start_words(words, strike, options.environment);
    Outcome outcome;
    Process program(start, options);
    _await_end(program, strike, outcome);
    device.settle(kScripts);
    _read_report(outcome);
    if (strike.traced) {
        static const std::regex kOutput(
            R"(\b(write|writev|newfstatat|fstat)\(1,[^\n]*\(INJECTED\)|\bfcntl\(1,[^\n]*EBADF[^\n]*\(INJECTED\))");
        outcome.trace = content(kTrace);
        outcome.struck = strike.inject.find("signal=KILL") != std::string::npos
                             ? outcome.run.signal == SIGKILL
                             : outcome.trace.find("(INJECTED)") != std::string::npos;
        outcome.output_struck = std::regex_search(outcome.trace, kOutput);
    }
    return outcome;
}

Trace read_trace(const std::string &text) {
    static const std::regex kCall(R"(^([a-z0-9_]+)\()");
    static const std::regex kPath(R"raw("(/tmp/[^"]*[^"/])/?")raw");  // a folder goes by one name
    Trace trace;
    std::set<std::string> paths;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::smatch match;
        if (!std::regex_search(line, match, kCall)) {
            continue;
        }
        ++trace.after[match[1]];
        if (line.find(kBegin) != std::string::npos) {
            trace.before = std::move(trace.after);
            trace.after.clear();
            paths.clear();  // the loader's
        }
        for (auto at = std::sregex_iterator(line.begin(), line.end(), kPath); at != std::sregex_iterator();
             ++at) {
            paths.insert((*at)[1]);
        }
    }
    trace.paths.assign(paths.begin(), paths.end());
    return trace;
}

}  // namespace emulator::sweep
