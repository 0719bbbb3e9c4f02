#include "sweep.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <exception>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <list>
#include <map>
#include <mutex>
#include <semaphore>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "document.h"
#include "namespace.h"
#include "process.h"
#include "survey.h"

namespace emulator::sweep {
namespace {

constexpr std::chrono::milliseconds kLookEvery{200};
constexpr std::chrono::hours kLongest{1000};  // of a worker; each of its runs has a watchdog of its own
constexpr size_t kShare = 8;                  // points; a worker's own survey is worth no fewer

struct Row {
    size_t runs = 0;
    size_t missed = 0;  // did not come to their point
    size_t fallen = 0;
};

std::string _quoted(const std::string &word) {
    constexpr std::string_view kPlain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-./:=@,+%";
    if (!word.empty() && word.find_first_not_of(kPlain) == std::string::npos) {
        return word;
    }
    std::string quoted = "'";
    for (const char character : word) {
        quoted += character == '\'' ? "'\\''" : std::string(1, character);
    }
    return quoted + "'";
}

// What a worker and a person who repeats a failure both need.
std::vector<std::string> _common_words(const Options &options, const Command &command) {
    std::vector<std::string> words{"--watchdog", std::to_string(options.watchdog_s)};
    for (const std::string &before : command.before) {
        words.insert(words.end(), {"--before", before});
    }
    for (const auto &[name, value] :
         {std::pair{"--scenario", options.scenario}, std::pair{"--cloud", options.cloud}}) {
        if (!value.empty()) {
            words.insert(words.end(), {name, value});
        }
    }
    words.emplace_back("--");
    words.insert(words.end(), command.words.begin(), command.words.end());
    return words;
}

std::string _repeat_line(const Options &options, const Command &command, const std::string &point) {
    std::string line = "extender sweep --only " + _quoted(point);
    for (const std::string &word : _common_words(options, command)) {
        line += ' ' + _quoted(word);
    }
    return line;
}

using Slots = std::counting_semaphore<>;

// Gives back the slot that has been taken for it.
class Slot {
public:
    explicit Slot(Slots &slots) : slots_(slots) {}
    Slot(const Slot &) = delete;
    Slot &operator=(const Slot &) = delete;
    ~Slot() { slots_.release(); }

private:
    Slots &slots_;
};

// A process of its own on a device of its own, which judges its share of the points.
class Worker {
public:
    /// @param slots  of which one has been taken for it.
    Worker(Slots &slots, const Options &options, const Command &command, std::vector<std::string> points)
        : slot_(slots), points_(std::move(points)), process_(_words(options, command), _input(points_)) {}

    /// Verdicts that have come since the last look; the first line is the survey's.
    [[nodiscard]] std::vector<json> look() {
        const bool ended = !process_.running();
        std::istringstream lines(process_.out());
        std::vector<json> all;
        for (std::string line; std::getline(lines, line);) {
            if (json value = json::parse(line, nullptr, false); value.is_object()) {
                all.push_back(std::move(value));
            }
        }
        std::vector<json> fresh(all.begin() + static_cast<ptrdiff_t>(seen_), all.end());
        seen_ = all.size();
        if (ended) {
            _end(fresh);
        }
        return fresh;
    }
    [[nodiscard]] bool ended() const { return ended_; }

private:
    static std::vector<std::string> _words(const Options &options, const Command &command) {
        std::string kinds;
        for (const std::string &kind : options.kinds) {
            kinds += (kinds.empty() ? "" : ",") + kind;
        }
        std::vector<std::string> words{std::filesystem::read_symlink("/proc/self/exe"), "sweep", "--worker",
                                       "--faults", kinds};
        const std::vector<std::string> common = _common_words(options, command);
        words.insert(words.end(), common.begin(), common.end());
        return words;
    }
    static RunOptions _input(const std::vector<std::string> &points) {
        RunOptions options;
        options.input = json(points).dump();
        options.watchdog = kLongest;
        return options;
    }
    // No verdict is no pass: the points that it has not come to have fallen.
    void _end(std::vector<json> &fresh) {
        ended_ = true;
        const Run run = process_.wait();
        if (seen_ == 0 && points_.empty()) {  // no survey, no sweep
            throw std::runtime_error(run.err.empty() ? "a worker ended at once" : run.err);
        }
        for (size_t i = seen_ == 0 ? 0 : seen_ - 1; i < points_.size(); ++i) {
            fresh.push_back({{"point", points_[i]},
                             {"struck", true},
                             {"falls", {{{"judgement", "sweep"}, {"text", "no verdict; " + run.err}}}}});
        }
    }

    const Slot slot_;
    const std::vector<std::string> points_;
    Process process_;
    size_t seen_ = 0;
    bool ended_ = false;
};

// Its commands and their workers go on side by side, as many as there are jobs.
class Sweep {
public:
    explicit Sweep(const Options &options)
        : options_(options), slots_(static_cast<ptrdiff_t>(options.jobs)) {}

    void run(const std::vector<Command> &commands) {
        commands_.resize(commands.size());
        std::vector<std::exception_ptr> failures(commands.size());
        std::vector<std::thread> threads;
        for (size_t i = 0; i < commands.size(); ++i) {
            threads.emplace_back(
                [this, &command = commands[i], &result = commands_[i], &failure = failures[i]] {
                    try {
                        result = _run(command);
                    } catch (...) {
                        failure = std::current_exception();
                        stopped_ = true;  // the others' results would go with it
                    }
                });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
        for (const std::exception_ptr &failure : failures) {
            if (failure != nullptr) {
                std::rethrow_exception(failure);
            }
        }
    }
    [[nodiscard]] int report() const {
        if (options_.json_output) {
            std::cout << json({{"commands", commands_}, {"fallen", fallen_}}).dump(1) << '\n';
        } else {
            _print_table();
            _print_fallen();
        }
        return fallen_.empty() ? 0 : 1;
    }

private:
    [[nodiscard]] json _run(const Command &command) {
        const json found = _survey(command);
        const std::vector<std::string> points = _chosen(found);
        std::list<std::vector<std::string>> shares(
            std::min<size_t>(options_.jobs, (points.size() + kShare - 1) / kShare));
        for (auto share = shares.begin(); const std::string &point : points) {
            share->push_back(point);
            share = std::next(share) == shares.end() ? shares.begin() : std::next(share);
        }
        std::list<Worker> workers;
        std::map<std::string, Row> rows;
        size_t done = 0;
        while (!stopped_ && (!shares.empty() || !workers.empty())) {
            while (!shares.empty() && slots_.try_acquire()) {
                workers.emplace_back(slots_, options_, command, shares.front());
                shares.pop_front();
            }
            std::this_thread::sleep_for(kLookEvery);
            for (auto worker = workers.begin(); worker != workers.end();) {
                for (const json &verdict : worker->look()) {
                    if (verdict.contains("point")) {
                        ++done;
                        _take(command, verdict, rows);
                    }
                }
                worker = worker->ended() ? workers.erase(worker) : std::next(worker);
            }
            _progress(command.name() + ": " + std::to_string(done) + " of " + std::to_string(points.size()),
                      done == points.size());
        }
        json faults = json::object();
        for (const auto &[kind, row] : rows) {
            faults[kind] = {{"runs", row.runs}, {"missed", row.missed}, {"fallen", row.fallen}};
        }
        return {{"command", command.name()},
                {"points", found.at("points").size()},
                {"good_run_ms", found.at("milliseconds")},
                {"library", found.at("library")},
                {"faults", faults}};
    }

    [[nodiscard]] json _survey(const Command &command) {
        slots_.acquire();
        Worker worker(slots_, options_, command, {});
        json found;
        while (!worker.ended()) {
            std::this_thread::sleep_for(kLookEvery);
            for (json &line : worker.look()) {
                found = std::move(line);
            }
        }
        return found;
    }

    [[nodiscard]] std::vector<std::string> _chosen(const json &found) const {
        if (!options_.only.empty()) {
            return options_.only;
        }
        std::vector<Point> points;
        for (const json &text : found.at("points")) {
            points.push_back(parse_point(text));
        }
        std::vector<std::string> chosen;
        for (const Point &point : sample(points, options_.limit, options_.seed)) {
            chosen.push_back(to_text(point));
        }
        return chosen;
    }

    void _take(const Command &command, const json &verdict, std::map<std::string, Row> &rows) {
        const std::string text = verdict.at("point");
        const json &falls = verdict.at("falls");
        Row &row = rows[parse_point(text).kind];
        ++row.runs;
        row.missed += verdict.at("struck") ? 0 : 1;
        if (falls.empty()) {
            return;
        }
        ++row.fallen;
        const std::lock_guard guard(lock_);
        fallen_.push_back({{"command", command.name()},
                           {"point", text},
                           {"falls", falls},
                           {"repeat", _repeat_line(options_, command, text)}});
        _say(command.name() + ": " + text + " fell: " + falls[0].at("judgement").get<std::string>(), true);
    }

    void _progress(const std::string &text, bool stays) {
        const std::lock_guard guard(lock_);
        _say(text + ", " + std::to_string(fallen_.size()) + " fallen", stays);
    }

    // One line that is written anew on a terminal; elsewhere only those that are to stay.
    static void _say(const std::string &text, bool stays) {
        const bool terminal = isatty(STDERR_FILENO) != 0;
        if (terminal || stays) {
            std::cerr << (terminal ? "\r\x1b[K" : "") << text << (stays ? "\n" : "") << std::flush;
        }
    }

    void _print_table() const {
        const auto line = [](const std::string &command, const std::string &fault, const auto &...numbers) {
            constexpr int kNameWidth = 16;
            constexpr int kWidth = 10;
            std::cout << std::left << std::setw(kNameWidth) << command << std::setw(kWidth) << fault
                      << std::right;
            ((std::cout << std::setw(kWidth) << numbers), ...) << '\n';
        };
        line("command", "fault", "runs", "missed", "fallen");
        for (const json &command : commands_) {
            for (const auto &[kind, row] : command.at("faults").items()) {
                line(command.at("command"), kind, row.at("runs").get<size_t>(),
                     row.at("missed").get<size_t>(), row.at("fallen").get<size_t>());
            }
            if (!command.at("library").get<bool>()) {
                std::cout
                    << "  (no calls, syscalls, kills, memory, descriptors: the library of faults cannot be "
                       "loaded into this program)\n";
            }
        }
    }

    void _print_fallen() const {
        for (const json &fallen : fallen_) {
            std::cout << '\n'
                      << fallen.at("command").get<std::string>() << ' '
                      << fallen.at("point").get<std::string>() << '\n';
            for (const json &fall : fallen.at("falls")) {
                std::cout << "  " << fall.at("judgement").get<std::string>() << ": "
                          << fall.at("text").get<std::string>() << '\n';
            }
            std::cout << "  " << fallen.at("repeat").get<std::string>() << '\n';
        }
    }

    const Options options_;
    Slots slots_;  // one is a worker's
    std::atomic<bool> stopped_ = false;
    std::vector<json> commands_;  // what came of each
    std::mutex lock_;             // of what follows, and of standard error
    json fallen_ = json::array();
};

json _judged(Stage &stage, const Survey &found, const std::string &point) {
    Verdict verdict;
    try {
        verdict = judge_point(stage, found, parse_point(point));
    } catch (const std::exception &error) {
        verdict.falls.push_back({"sweep", error.what()});
    }
    json falls = json::array();
    for (const Fall &fall : verdict.falls) {
        falls.push_back({{"judgement", fall.judgement}, {"text", fall.text}});
    }
    return {{"point", point}, {"struck", verdict.struck}, {"falls", falls}};
}

}  // namespace

int sweep_over(const Options &options, const std::vector<Command> &commands) {
    const auto isTraced = [](const std::string &kind) {
        return kind == "syscalls" || kind == "kills" || kind == "files";
    };
    if (std::any_of(options.kinds.begin(), options.kinds.end(), isTraced)) {
        static_cast<void>(Process({"strace", "-V"}).wait());  // throws where it is missing, and names it
    }
    Sweep sweep(options);
    sweep.run(commands);
    return sweep.report();
}

int work(const Options &options, const Command &command) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);  // the sweep may be interrupted
    split_off();
    Setup setup{command, read_document(options.scenario), read_document(options.cloud),
                std::chrono::seconds(options.watchdog_s)};
    const json points = json::parse(std::cin);
    DeviceOptions device;
    device.keep = {command.words.front()};
    enter_device(device);
    Stage stage(std::move(setup));
    const Survey found = survey(stage, options.kinds);
    json texts = json::array();
    for (const Point &point : found.points) {
        texts.push_back(to_text(point));
    }
    std::cout << dump({{"points", texts},
                       {"milliseconds", found.milliseconds},
                       {"library", found.good.reported}})
              << std::endl;
    for (const json &point : points) {
        std::cout << dump(_judged(stage, found, point)) << std::endl;
    }
    return 0;
}

}  // namespace emulator::sweep
