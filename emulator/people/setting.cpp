#include "setting.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <system_error>

#include "control_socket.h"
#include "document.h"
#include "firmware.h"
#include "foreign_broker.h"
#include "image_scenario.h"

namespace {

constexpr size_t kImageBytes = 4000000;

struct CloseFile {
    void operator()(std::FILE *file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

// Null for no path. Where standard output or error goes to the same file, that descriptor is copied: both
// then write at one position.
File _open_journal(const std::string &path) {
    File sink;
    struct stat named {};
    const bool there = stat(path.c_str(), &named) == 0;
    for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
        struct stat open {};
        if (there && sink == nullptr && fstat(fd, &open) == 0 && open.st_dev == named.st_dev &&
            open.st_ino == named.st_ino) {
            emulator::Descriptor copy(fcntl(fd, F_DUPFD_CLOEXEC, 0));
            sink.reset(fdopen(copy.get(), "w"));
            static_cast<void>(sink != nullptr ? copy.release() : -1);  // the file's now
        }
    }
    if (sink == nullptr && !path.empty()) {
        sink.reset(std::fopen(path.c_str(), "we"));
        if (sink == nullptr) {
            throw std::system_error(errno, std::generic_category(), path);
        }
    }
    return sink;
}

// A file is not opened to find out: it may be a pipe. @return "", or what is wrong.
std::string _fault(const std::string &path, int mode, bool folder) {
    struct stat found {};
    if (stat(path.c_str(), &found) != 0) {
        return path + ": " + std::strerror(errno);
    }
    if (S_ISDIR(found.st_mode) != folder) {
        return path + ": " + std::strerror(folder ? ENOTDIR : EISDIR);
    }
    return access(path.c_str(), mode) == 0 ? "" : path + ": " + std::strerror(errno);
}

}  // namespace

CLI::Validator emulator::readable_file() {
    return {[](const std::string &path) { return _fault(path, R_OK, false); }, "FILE"};
}

CLI::Validator emulator::readable_folder() {
    return {[](const std::string &path) { return _fault(path, R_OK | X_OK, true); }, "DIR"};
}

void emulator::add_journal_option(CLI::App &command, Setting &setting) {
    command.add_option("--journal", setting.journal,
                       "File that gets a JSON line for everything that happens (/dev/stderr, too)");
}

void emulator::add_name_option(CLI::App &command, Setting &setting) {
    command.add_option("--name", setting.name,
                       "What the device is called by those who join it (exec, inject, show)");
}

void emulator::add_device_options(CLI::App &command, Setting &setting) {
    add_journal_option(command, setting);
    command.add_option("--scenario", setting.scenario, "Faults and start values, JSON")
        ->check(readable_file());
    command.add_option("--cloud", setting.cloud, "Changes to the model of the cloud, JSON")
        ->check(readable_file());
    command.add_option("--flash", setting.device.flash, "Folder that is the flash and outlives the run")
        ->check(readable_folder());
}

int emulator::in_device(const Setting &setting,
                        const std::function<int(std::FILE *, const json &, const json &)> &work) {
    split_off();
    const json scenario = read_document(setting.scenario);
    const json cloud = read_document(setting.cloud);
    const File sink = _open_journal(setting.journal);
    enter_device(setting.device);
    return work(sink.get(), scenario, cloud);
}

int emulator::at_work(std::FILE *journal, const json &scenario, const json &cloud,
                      const std::function<int(Device &, ImageServer &)> &work) {
    Device device(scenario, cloud, journal);
    const auto server = make_image_server(device.journal(), scenario.value("image", json::object()));
    if (!cloud.contains("firmware")) {
        offer_firmware(device, *server, kNewVersion, kImageBytes);
    }
    put_status_file();
    std::optional<ForeignBroker> foreign;
    if (!scenario.value("listening", true)) {
        foreign.emplace(device.journal());
    }
    return work(device, *server);
}

int emulator::with_device(const Setting &setting, const std::function<int(Control &)> &work) {
    return in_device(setting, [&](std::FILE *sink, const json &scenario, const json &cloud) {
        return at_work(sink, scenario, cloud, [&](Device &device, ImageServer &server) {
            Control control(device, server);
            const ControlSocket socket(control, setting.name);
            return work(control);
        });
    });
}
