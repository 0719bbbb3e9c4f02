#include "control.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "fault.h"
#include "firmware.h"
#include "image_lock.h"
#include "image_scenario.h"

namespace emulator {
namespace {

constexpr std::chrono::milliseconds kLookEvery{20};
constexpr std::chrono::seconds kLastScripts{2};
constexpr std::chrono::hours kNoWatchdog{24};  // people may let a command wait
constexpr size_t kScriptsShown = 10;

std::string _content(const char *path) {
    std::ifstream file(path, std::ios::binary);
    std::string text{std::istreambuf_iterator<char>(file), {}};
    text.erase(text.find_last_not_of('\n') + 1);
    return text;
}

json _number_or_null(const std::string &text) {
    const json value = json::parse(text, nullptr, false);
    return value.is_number_integer() ? value : json();
}

size_t _tmp_free() {
    struct statvfs info {};
    return statvfs("/tmp", &info) == 0 ? info.f_bfree * info.f_frsize : 0;
}

// /tmp is in memory: its size is what it holds and what it shall still take.
void _limit_tmp(const json &free) {
    struct statvfs info {};
    std::string options = "mode=01777,size=50%";
    if (!free.is_null() && statvfs("/tmp", &info) == 0) {
        const size_t used = (info.f_blocks - info.f_bfree) * info.f_frsize;
        // 0 would be no limit.
        options = "mode=01777,size=" + std::to_string(std::max(used + free.get<size_t>(), info.f_frsize));
    }
    if (mount("tmpfs", "/tmp", "tmpfs", MS_REMOUNT | MS_NOSUID | MS_NODEV, options.c_str()) != 0) {
        throw std::system_error(errno, std::generic_category(), "/tmp");
    }
}

// Changes with the store's files. The store is read again only then.
std::string _store_mark() {
    std::string mark;
    for (const char *path : {"/mnt/store.db", "/mnt/store.db-wal"}) {
        struct stat status {};
        if (stat(path, &status) == 0) {
            mark +=
                std::to_string(status.st_mtim.tv_sec) + "." + std::to_string(status.st_mtim.tv_nsec) + " ";
        }
    }
    return mark;
}

}  // namespace

Run Control::run_command(const std::vector<std::string> &argv, const Output &output) {
    RunOptions options;
    options.watchdog = kNoWatchdog;
    Process process = device_.start(argv, options);
    note_start(argv);
    size_t out = 0;
    size_t err = 0;
    const auto handOut = [&] {
        const std::string allOut = process.out();
        const std::string allErr = process.err();
        if (output && (allOut.size() > out || allErr.size() > err)) {
            output(std::string_view(allOut).substr(out), std::string_view(allErr).substr(err));
            out = allOut.size();
            err = allErr.size();
        }
    };
    while (process.running()) {
        handOut();
        std::this_thread::sleep_for(kLookEvery);
    }
    Run run = process.wait();
    handOut();
    device_.settle(kLastScripts);
    const json record{{"argv", argv}, {"printed", run.out}, {"status", run.status}, {"signal", run.signal}};
    journal().add("run", record);
    const std::lock_guard lock(mutex_);
    last_ = record;
    return run;
}

void Control::note_start(const std::vector<std::string> &argv) {
    journal().add("start", {{"argv", argv}});
}

void Control::note_end(const std::vector<std::string> &argv, int status) {
    journal().add("run", {{"argv", argv}, {"status", status}});
}

json Control::inject(const json &fault) {
    const json action = fault.is_string() ? parse_fault(fault) : fault;
    check_action(action);
    const auto alive = device_.hold();
    const std::lock_guard lock(mutex_);
    if (action.contains("on")) {
        broker_rules_.push_back(device_.broker().add_rule(action));
    } else if (action.contains("do")) {
        image_rules_.push_back(_add_image_rule(action));
    } else {
        _act(action);
    }
    json record = json::object();
    if (fault.is_string()) {
        record["text"] = fault;
    }
    record["rule"] = action;
    journal().add("injected", record);
    return action;
}

json Control::_add_image_rule(json rule) {
    json effects = rule.at("do");
    for (const char *name : {"drop_after", "stall_after"}) {
        const json share = effects.is_object() ? effects.value(name, json()) : json();
        if (share.is_string() && share.get_ref<const std::string &>().ends_with('%')) {
            const double part =
                std::clamp(std::atof(share.get_ref<const std::string &>().c_str()), 0.0, 100.0);
            effects[name] = std::llround(part / 100 * static_cast<double>(server_.largest()));
        }
    }
    rule["do"] = effects;
    server_.add_rule(rule);
    if (rule.contains("nth")) {  // in a scenario it counts from the start
        const json when = rule;
        const auto earlier = journal().select([&](const json &record) {
            return record.at("kind") == "http" &&
                   when.value("method", record.at("method")) == record.at("method") &&
                   when.value("path", record.at("path")) == record.at("path");
        });
        rule["nth"] = rule.at("nth").get<size_t>() + earlier.size();
    }
    return rule;
}

// Does what is no rule. A restart is only asked for here: whoever runs the device does it.
void Control::_act(const json &action) {
    Broker &broker = device_.broker();
    if (action.contains("clear")) {
        _clear();
        return;
    }
    if (action.contains("link")) {
        broker.set_link(action.at("link"));
    } else if (action.contains("logic")) {
        broker.set_logic(action.at("logic"));
    } else if (action.contains("broker")) {
        if (action.at("broker") != "start") {
            broker.stop();
        }
        if (action.at("broker") != "stop") {
            broker.start();
        }
    } else if (action.contains("download")) {
        const json &what = action.at("download");
        if (what == "cut") {
            server_.cut();
        } else {
            server_.stall(what == "stall");
        }
    } else if (action.contains("tmp_free")) {
        _limit_tmp(action.at("tmp_free"));
    } else if (action.contains("device")) {
        Device::ask_for_restart();
    }
    others_.push_back(dump(action));
}

void Control::_clear() {
    device_.broker().set_rules(device_.scenario().value("rules", json::array()));
    device_.broker().set_link(device_.scenario().value("link", 2));
    device_.broker().start();
    server_.clear_added_rules();
    server_.stall(false);
    _limit_tmp(json());
    broker_rules_.clear();
    image_rules_.clear();
    others_.clear();
}

json Control::state() {
    const auto alive = device_.hold();
    const std::lock_guard lock(mutex_);
    if (const std::string mark = _store_mark(); mark != store_mark_ || store_.empty()) {
        try {
            store_ = {{"status", device_.store("device-status")}, {"account", device_.store("account")}};
        } catch (const std::runtime_error &) {  // nothing that can be read, yet
            store_ = {{"status", json::object()}, {"account", json::object()}};
        }
        store_mark_ = mark;
    }
    const json device = device_.cloud().model().at("device");
    json locks = json::array();
    for (const ImageLock &one : image_locks()) {
        if (one.there) {
            locks.push_back({{"command", one.command}, {"path", one.path}, {"held", one.held}});
        }
    }
    json scripts = json::array();
    const std::vector<json> ran = journal().of_kind("script");
    for (size_t i = ran.size() - std::min(ran.size(), kScriptsShown); i < ran.size(); ++i) {
        scripts.push_back(
            {{"t", ran[i].at("t")}, {"name", ran[i].at("name")}, {"arguments", ran[i].at("arguments")}});
    }
    const json status = json::parse(_content(kStatusPath), nullptr, false);
    return {{"bound", store_.at("status").value("bind_status", 0) != 0},
            {"account", store_.at("account").value("userName", "")},
            {"owner", device.at("owner")},
            {"mode", device_.broker().logic()},
            {"link", device_.broker().link()},
            {"alias", device.at("alias")},
            {"firmware", _content("/tmp/softinfo")},
            {"status", status.is_object() ? status : json()},
            {"result", _number_or_null(_content("/tmp/cloud.error"))},
            {"locks", locks},
            {"last", last_},
            {"scripts", scripts},
            {"tmp_free", _tmp_free()},
            {"seq", journal().last()}};
}

json Control::scenario() {
    const std::lock_guard lock(mutex_);
    json scenario = device_.scenario();
    for (const json &rule : broker_rules_) {
        scenario["rules"].push_back(rule);
    }
    if (!image_rules_.empty()) {
        json &image = scenario["image"];
        json all = json::array();
        for (auto rule = image_rules_.rbegin(); rule != image_rules_.rend();
             ++rule) {  // the latest holds first
            all.push_back(*rule);
        }
        for (const json &rule :
             image.is_object() ? image.value("rules", slow_image_rules()) : slow_image_rules()) {
            all.push_back(rule);
        }
        image["rules"] = all;
    }
    if (!others_.empty()) {
        std::string text = scenario.value("description", "");
        text += text.empty() ? "" : " ";
        text += "Injected as well, and nothing for a scenario:";
        for (const std::string &one : others_) {
            text += " " + one;
        }
        scenario["description"] = text;
    }
    return scenario;
}

}  // namespace emulator
