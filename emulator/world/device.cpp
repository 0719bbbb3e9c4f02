#include "device.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "document.h"
#include "namespace.h"
#include "unix_socket.h"

namespace emulator {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::milliseconds kSettleStep{5};
constexpr std::array kScenarioMembers{
    Member{"$schema", Kind::kText},
    Member{"description", Kind::kText},
    Member{"listening", Kind::kFlag},
    Member{"logic", Kind::kInteger},
    Member{"link", Kind::kInteger},
    Member{"first_id", Kind::kInteger},
    Member{"reconnect_polls", Kind::kInteger},
    Member{"reconnect_ms", Kind::kCount},
    Member{"pending", Kind::kInteger},
    Member{"kmpd", Kind::kText},
    Member{"image", Kind::kObject},
    Member{"big_endian", Kind::kFlag},
    Member{"rules", Kind::kList},
};
constexpr const char *kRestartMark = "/mnt/restart";  // left by the platform once an image is installed

void _write_file(const char *path, const std::string &text) {
    if (!(std::ofstream(path, std::ios::binary) << text).flush()) {
        throw std::system_error(errno, std::generic_category(), path);
    }
}

// Whether process 1 has a child other than this one: what a program left in the background.
bool _orphans() {
    const std::string self = std::to_string(getpid());
    std::error_code gone;  // processes end while their folder is looked at
    if (fs::read_symlink("/proc/self", gone) != self) {
        return false;  // the host's /proc: its numbers are not ours
    }
    for (const auto &entry : fs::directory_iterator("/proc", gone)) {
        std::ifstream file(entry.path() / "stat");
        std::string line;
        if (entry.path().filename() == self || !isdigit(entry.path().filename().c_str()[0]) ||
            !std::getline(file, line)) {
            continue;
        }
        // "pid (name) state parent ...", and the name may hold anything.
        std::istringstream rest(line.substr(line.rfind(')') + 1));
        char state = 0;
        int parent = 0;
        if (rest >> state >> parent && parent == 1) {
            return true;
        }
    }
    return false;
}

// The version text of the image in the flash, as the platform's image format has it: 128 bytes at offset 16,
// NUL-padded. Without an image the device runs what it was made with.
std::string _software_version() {
    constexpr int kOffset = 16;
    std::array<char, 129> version{};
    std::ifstream image(std::string(kFlashPath) + "/firmware.bin", std::ios::binary);
    if (!image.seekg(kOffset).read(version.data(), version.size() - 1)) {
        return kSoftwareVersion;
    }
    return std::string(version.data()) + "\n";
}

KmpdReply _kmpd_reply(const std::string &name) {
    if (name == "silent") {
        return KmpdReply::kSilent;
    }
    if (name == "oversize") {
        return KmpdReply::kOversize;
    }
    if (name != "answer") {
        throw std::invalid_argument("\"kmpd\" of the scenario cannot be " + dump(name));
    }
    return KmpdReply::kAnswer;
}

}  // namespace

std::vector<std::string> cloud_msg_command() {
    if (const char *command = std::getenv("CLOUD_MSG_COMMAND")) {
        std::istringstream words(command);
        return {std::istream_iterator<std::string>(words), {}};
    }
    return {fs::read_symlink("/proc/self/exe").parent_path() / "cloud_msg"};
}

Device::Device(json scenario, json cloud, std::FILE *sink)
    : scenario_(scenario.is_null() ? json::object() : std::move(scenario)),
      model_(cloud.is_null() ? json::object() : std::move(cloud)),
      journal_(sink) {
    check_members(scenario_, kScenarioMembers, "the scenario");
    clear_flash();
    _start(model_);
}

Device::~Device() {
    _stop();
}

void Device::_start(const json &cloud) {
    clear_tmp();
    _write_file("/tmp/device.info", dump({{"devid", kDeviceId},
                                          {"firmware_id", "6F1D3C5B7A9E8D2C4B6A8091E3F5D7C9"},
                                          {"hardware_id", "0A1B2C3D4E5F60718293A4B5C6D7E8F9"},
                                          {"oem_id", "F9E8D7C6B5A493827160F5E4D3C2B1A0"}}));
    _write_file("/tmp/softinfo", _software_version());

    cloud_ = std::make_unique<Cloud>(cloud);
    broker_ = std::make_unique<Broker>(journal_, *cloud_, scenario_);
    const std::string kmpd = scenario_.value("kmpd", "answer");
    const char *const order = std::getenv("CLOUD_MSG_BYTE_ORDER");  // of the program under test
    const bool bigEndian = order != nullptr && std::string_view(order) == "big";
    if (kmpd != "absent") {
        kmpd_ = std::make_unique<Kmpd>(journal_, _kmpd_reply(kmpd), scenario_.value("big_endian", bigEndian));
    }

    recorder_ = bound_socket(SOCK_DGRAM | SOCK_NONBLOCK, kRecorderPath);
    // For reading and writing: with a writer of its own the pipe never reports an end.
    console_.reset(open(kConsolePath, O_RDWR | O_CLOEXEC | O_NONBLOCK));
    stop_.reset(eventfd(0, EFD_CLOEXEC));
    collector_ = std::thread([this] {
        std::array<pollfd, 3> inputs{
            {{stop_.get(), POLLIN, 0}, {console_.get(), POLLIN, 0}, {recorder_.get(), POLLIN, 0}}};
        while (poll(inputs.data(), inputs.size(), -1) < 0 || inputs[0].revents == 0) {
            _collect();
        }
    });
}

void Device::_stop() {
    kmpd_.reset();
    broker_.reset();
    eventfd_write(stop_.get(), 1);
    collector_.join();
    _collect();
    for (Descriptor *each : {&stop_, &console_, &recorder_}) {
        each->reset();
    }
}

void Device::reset() {
    const auto lock = hold();
    _stop();
    journal_.clear();
    clear_flash();
    _start(model_);
}

bool Device::restart_due() {
    return access(kRestartMark, F_OK) == 0;
}

void Device::ask_for_restart() {
    _write_file(kRestartMark, "");
}

void Device::restart() {
    const auto lock = hold();
    const json cloud = cloud_->model();
    const int logic = broker_->logic();
    end_other_processes();
    settle();
    _stop();
    unlink(kRestartMark);
    _start(cloud);
    broker_->set_logic(logic);
    journal_.add("restart", {{"version", _software_version()}});
}

void Device::await_restart() {
    const RestartWatch watch;
    pollfd change{watch.fd(), POLLIN, 0};
    while (!watch.due()) {
        constexpr std::chrono::milliseconds kLimit(kWatchdog);
        if (poll(&change, 1, kLimit.count()) == 0) {
            throw std::runtime_error("no restart. The journal:\n" + journal_.text());
        }
    }
    restart();
}

RestartWatch::RestartWatch() : fd_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    if (!fd_.ok() || inotify_add_watch(fd_.get(), kFlashPath, IN_CREATE | IN_MOVED_TO) < 0) {
        throw std::system_error(errno, std::generic_category(), kFlashPath);
    }
}

bool RestartWatch::due() const {
    alignas(inotify_event) std::array<char, 4096> events{};
    while (read(fd_.get(), events.data(), events.size()) > 0) {
    }
    return Device::restart_due();
}

// Called by the collector and by whoever wants to see everything that was written before.
void Device::_collect() {
    const std::lock_guard lock(collecting_);
    std::array<char, 65536> buffer{};
    for (ssize_t size = 0; (size = read(console_.get(), buffer.data(), buffer.size())) > 0;) {
        console_rest_.append(buffer.data(), static_cast<size_t>(size));
        for (size_t end = 0; (end = console_rest_.find('\n')) != std::string::npos;) {
            if (end > 0) {  // an empty line ends a message that had an end of its own
                journal_.add("console", {{"text", console_rest_.substr(0, end)}});
            }
            console_rest_.erase(0, end + 1);
        }
    }
    for (ssize_t size = 0; (size = recv(recorder_.get(), buffer.data(), buffer.size(), 0)) > 0;) {
        journal_.add("script", json::parse(buffer.data(), buffer.data() + size));
    }
}

void Device::settle(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (_orphans() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(kSettleStep);
    }
    _collect();
}

Process Device::start(std::vector<std::string> argv, const RunOptions &options) {
    if (argv.at(0) == "cloud_msg") {
        std::vector<std::string> command = cloud_msg_command();
        command.insert(command.end(), argv.begin() + 1, argv.end());
        argv = std::move(command);
    }
    return Process(std::move(argv), options);
}

Run Device::run(std::vector<std::string> argv, const RunOptions &options) {
    journal_.add("start", {{"argv", argv}});
    Process process = start(argv, options);
    Run result = process.wait();
    settle();
    journal_.add(
        "run",
        {{"argv", argv}, {"printed", result.out}, {"status", result.status}, {"signal", result.signal}});
    return result;
}

Run Device::cloud_msg(std::vector<std::string> args, const RunOptions &options) {
    args.insert(args.begin(), "cloud_msg");
    return run(std::move(args), options);
}

std::string Device::encrypt(std::string_view text) {
    Run run = Process({"cloud_rsa", "encrypt", "--", std::string(text)}).wait();
    if (run.status != 0) {
        throw std::runtime_error("cloud_rsa: " + run.err);
    }
    run.out.erase(run.out.find_last_not_of('\n') + 1);
    return run.out;
}

json Device::store(const std::string &name) {
    const Run run = Process({"cloud_store", "get", name}).wait();
    if (run.status != 0) {
        throw std::runtime_error("cloud_store: " + run.err);
    }
    return json::parse(run.out);
}

}  // namespace emulator
