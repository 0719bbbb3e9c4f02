// extender check: checks a part that somebody else wrote against the sentences of its page.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "account_checks.h"
#include "checks.h"
#include "commands.h"
#include "namespace.h"
#include "report.h"
#include "unix_socket.h"

namespace emulator {
namespace {

namespace fs = std::filesystem;

struct Asked {
    std::string part;
    check::Platform platform;
    check::Neighbour neighbour;
    std::string qemu;
    std::string probe;
    std::string only;
    std::string junit;
    int watchdog_s = 120;
    bool list = false;
};

#ifndef PLATFORM_FROM_BIN
#define PLATFORM_FROM_BIN "."
#endif

// What stands beside this program, or in the folder of the installed platform, unless the user names another.
std::string _beside(const std::string &given, const char *name) {
    if (!given.empty()) {
        return fs::absolute(given);
    }
    const fs::path folder = fs::read_symlink("/proc/self/exe").parent_path();
    return fs::exists(folder / name) ? folder / name : folder / PLATFORM_FROM_BIN / name;
}

check::Checks _checks(const Asked &asked) {
    check::Checks all;
    const auto add = [&all](const check::Checks &more) { all.insert(all.end(), more.begin(), more.end()); };
    if (asked.part == "platform") {
        add(check::store_checks(asked.platform));
        add(check::account_checks(asked.platform));
        add(check::firmware_checks(asked.platform));
        add(check::rsa_checks(asked.platform));
    } else if (asked.part == "broker") {
        add(check::broker_checks(asked.neighbour));
    } else if (asked.part == "kmpd") {
        add(check::kmpd_checks(asked.neighbour));
    } else {
        add(check::service_checks(asked.neighbour));
    }
    std::erase_if(
        all, [&asked](const check::Check &each) { return each.name.find(asked.only) == std::string::npos; });
    if (all.empty()) {
        throw std::invalid_argument("no check has " + asked.only + " in its name (see --list)");
    }
    return all;
}

// A part that should run and does not would be waited for in every check.
void _reach(const Asked &asked) {
    const int type = asked.part == "kmpd" ? SOCK_DGRAM : SOCK_STREAM;
    const sockaddr_un address = socket_address(asked.neighbour.socket);
    const Descriptor fd(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    if (connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        throw std::system_error(errno, std::generic_category(), asked.neighbour.socket);
    }
}

// In a private device, but where the part runs already: its socket is the host's.
void _enter(const Asked &asked) {
    if (asked.neighbour.socket.empty()) {
        DeviceOptions options;
        options.keep = {asked.platform.wrapper, asked.platform.rsa, asked.platform.image};
        options.keep.insert(options.keep.end(), asked.neighbour.command.begin(),
                            asked.neighbour.command.end());
        options.keep.insert(options.keep.end(), asked.platform.probe.begin(), asked.platform.probe.end());
        std::erase_if(options.keep, [](const std::string &path) { return !fs::exists(path); });
        enter_device(options);
    }
}

void _tidy(const Asked &asked) {
    if (asked.neighbour.socket.empty()) {
        end_other_processes();
        clear_tmp();
        clear_flash();
    }
}

struct CloseFile {
    void operator()(std::FILE *file) const { std::fclose(file); }
};

int _check(Asked asked) {
    std::istringstream words(asked.qemu);
    for (std::string word; words >> word;) {
        asked.platform.probe.push_back(word);
    }
    asked.platform.probe.push_back(_beside(asked.probe, "cloud_probe"));
    asked.platform.wrapper = _beside(asked.platform.wrapper, "libwrapper.so");
    asked.platform.rsa = _beside(asked.platform.rsa, "librsa.so");
    if (!asked.platform.image.empty()) {
        asked.platform.image = fs::absolute(asked.platform.image);
    }
    const check::Checks checks = _checks(asked);
    if (asked.list) {
        for (const check::Check &each : checks) {
            std::cout << each.name << '\t' << each.page << '\t' << each.sentence << '\n';
        }
        return 0;
    }
    std::unique_ptr<std::FILE, CloseFile> junit;
    if (asked.neighbour.socket.empty()) {
        split_off();
    } else {
        _reach(asked);
    }
    if (!asked.junit.empty()) {
        junit.reset(std::fopen(asked.junit.c_str(), "we"));
        if (junit == nullptr) {
            throw std::system_error(errno, std::generic_category(), asked.junit);
        }
    }
    _enter(asked);
    check::Report report(std::cout, asked.part, checks.size());
    for (const check::Check &each : checks) {
        _tidy(asked);
        report.add(each, check::run_check(each, std::chrono::seconds(asked.watchdog_s)));
    }
    if (junit != nullptr) {
        report.write_junit(junit.get());
    }
    return report.good() ? 0 : 1;
}

}  // namespace

void add_check(CLI::App &app, int &status) {
    CLI::App *const command = app.add_subcommand("check", "Check a part of one's own against its page.");
    command->require_subcommand(1);
    const auto part = [&](const char *name, const char *help) {
        const auto asked = std::make_shared<Asked>();
        asked->part = name;
        CLI::App *const each = command->add_subcommand(name, help);
        each->add_option("--junit", asked->junit, "File that gets the verdicts as JUnit's XML");
        each->add_option("--only", asked->only, "Only the checks whose name holds this text");
        each->add_option("--watchdog", asked->watchdog_s, "Seconds that a check may take");
        each->add_flag("--list", asked->list, "Print names, pages and sentences, and check nothing");
        each->callback([asked, &status] { status = _check(*asked); });
        return std::pair(each, asked);
    };
    const auto neighbour = [&](const char *name, const char *help, bool socket) {
        const auto [each, asked] = part(name, help);
        CLI::Option *const words =
            each->add_option("command", asked->neighbour.command, "What starts it, after --");
        if (socket) {
            each->add_option("--socket", asked->neighbour.socket, "Of one that runs already")
                ->excludes(words);
        } else {
            words->required();
        }
        return std::pair(each, asked);
    };
    const auto [platform, asked] =
        part("platform", "The two platform libraries; by default the reference ones.");
    platform->add_option("--library", asked->platform.wrapper, "libwrapper.so")->check(CLI::ExistingFile);
    platform->add_option("--rsa", asked->platform.rsa, "librsa.so")->check(CLI::ExistingFile);
    platform->add_option("--image", asked->platform.image, "A firmware image that it takes")
        ->check(CLI::ExistingFile);
    platform->add_flag("--install", asked->platform.install, "Have that image installed, too");
    platform->add_option("--qemu", asked->qemu, "Words that run a program of its processor");
    platform->add_option("--probe", asked->probe, "cloud_probe, built for its processor")
        ->check(CLI::ExistingFile);
    neighbour("broker", "A broker; by default the emulated one.", true);
    const auto [kmpd, daemon] = neighbour("kmpd", "A management daemon; by default the emulated one.", true);
    kmpd->add_flag("--big-endian", daemon->neighbour.big_endian, "It runs on a big-endian processor");
    neighbour("service", "A service that registers itself with the broker.", false);
}

}  // namespace emulator
