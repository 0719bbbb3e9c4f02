#include "stage.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "firmware.h"
#include "image_scenario.h"
#include "namespace.h"

namespace emulator::sweep {
namespace {

namespace fs = std::filesystem;

constexpr size_t kImageBytes = 100000;
constexpr const char *kOthersLines = "dora@example.com:$1$abc:1\nguest:x:2\n";
constexpr const char *kOthersText = "Another user's, and to stay so.\n";
constexpr const char *kOthersPath = "/tmp/.others_file";
constexpr mode_t kOthersMode = 0644;
constexpr std::array kNeighbours{"/tmp/cloud-brd", "/tmp/cloud_kmpd_unix"};
constexpr std::array kPlanted{kOthersPath, kVictimPath};

void _put(const std::string &path, const std::string &text) {
    std::ofstream(path, std::ios::binary) << text;
}

bool _is_ours(const std::string &path) {  // the emulator's, or planted
    return path.starts_with("/tmp/.others") ||
           std::find(kNeighbours.begin(), kNeighbours.end(), path) != kNeighbours.end();
}

// Every name below a folder, but for host folders that are shown there.
void _collect(const std::string &folder, std::vector<std::string> &names) {
    struct stat own {};
    lstat(folder.c_str(), &own);
    std::error_code gone;
    for (const auto &entry : fs::directory_iterator(folder, gone)) {
        const std::string path = entry.path();
        struct stat status {};
        if (lstat(path.c_str(), &status) != 0 || status.st_dev != own.st_dev || _is_ours(path)) {
            continue;
        }
        names.push_back(path);
        if (S_ISDIR(status.st_mode)) {
            _collect(path, names);
        }
    }
}

}  // namespace

bool give_away(const std::string &path) {
    return lchown(path.c_str(), kOtherUser, kOtherUser) == 0;
}

std::string content(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();  // of a folder nothing
    return text.str();
}

Stage::Stage(Setup setup) : setup_(std::move(setup)) {
    device_ = std::make_unique<Device>(setup_.scenario, setup_.cloud);
    json image = setup_.scenario.value("image", json::object());
    if (image.empty()) {
        image["rules"] = json::array();  // as fast as it goes
    }
    images_ = make_image_server(device_->journal(), image);
}

std::vector<std::string> Stage::_resolved(std::vector<std::string> words) {
    constexpr std::string_view kCipher = "rsa:";
    for (std::string &word : words) {
        if (word.starts_with(kCipher)) {
            word = device_->encrypt(std::string_view(word).substr(kCipher.size()));
        }
    }
    return words;
}

void Stage::_first_time() {
    if (!setup_.cloud.contains("firmware")) {
        offer_firmware(*device_, *images_, kNewVersion, kImageBytes);
    }
    put_status_file();
    _put(kPasswdPath, kOthersLines);
    words_ = _resolved(setup_.command.words);
    for (const std::string &before : setup_.command.before) {
        const Run run = device_->run(_resolved(words_of(before)));
        if (run.status != 0) {
            throw std::runtime_error(before + ", before the run: " + run.out + run.err);
        }
    }
    files_ = files();
    cloud_ = device_->cloud().model();
    logic_ = device_->broker().logic();
}

void Stage::prepare() {
    if (words_.empty()) {
        _first_time();
    }
    end_other_processes();
    device_->reset();  // counts connections from 1 again, too
    put_files(files_);
    device_->cloud().change(cloud_);
    device_->broker().set_logic(logic_);
    for (const char *path : kPlanted) {
        _put(path, kOthersText);
        chmod(path, kOthersMode);
        others_ = give_away(path) ? kOtherUser : geteuid();
    }
}

json Stage::state() {
    const Run dumped = Process({"cloud_store", "dump"}).wait();
    json state = json::parse(dumped.out, nullptr, false);
    if (dumped.status != 0 || !state.is_object()) {
        state = {{"the store", "unreadable: " + dumped.out + dumped.err}};
    }
    state["the device in the cloud"] = device_->cloud().model().value("device", json::object());
    state["the broker's mode"] = device_->broker().logic();
    return state;
}

std::vector<std::string> Stage::names() {
    std::vector<std::string> all;
    _collect("/tmp", all);
    std::sort(all.begin(), all.end());
    return all;
}

Files Stage::files() {
    std::vector<std::string> all;
    _collect("/tmp", all);
    _collect(kFlashPath, all);
    Files files;
    for (const std::string &path : all) {
        struct stat status {};
        if (lstat(path.c_str(), &status) == 0 && (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode))) {
            files[path] = {status.st_mode, S_ISREG(status.st_mode) ? content(path) : ""};
        }
    }
    return files;
}

void Stage::put_files(const Files &files) {
    for (const auto &[path, old] : Stage::files()) {
        std::error_code gone;  // with its folder
        fs::remove_all(path, gone);
    }
    for (const auto &[path, file] : files) {  // a folder comes before what is in it
        if (S_ISDIR(file.first)) {
            mkdir(path.c_str(), 0700);
        } else {
            _put(path, file.second);
        }
        chmod(path.c_str(), file.first & 07777);
    }
}

std::vector<std::string> Stage::harmed(bool withLines) const {
    std::vector<std::string> found;
    for (const char *path : kPlanted) {
        struct stat status {};
        if (lstat(path, &status) != 0 || !S_ISREG(status.st_mode) || content(path) != kOthersText) {
            found.push_back(std::string(path) + " is not as it was");
        } else if ((status.st_mode & 07777) != kOthersMode || status.st_uid != others_) {
            found.push_back(std::string(path) + " has another mode or owner");
        }
    }
    if (withLines && content(kPasswdPath).find(kOthersLines) == std::string::npos) {
        found.push_back("/tmp/passwd lacks lines of others: " + content(kPasswdPath));
    }
    return found;
}

std::vector<std::string> Stage::running() {
    std::vector<std::string> found;
    std::error_code gone;
    for (const auto &entry : fs::directory_iterator("/proc", gone)) {
        const pid_t pid = static_cast<pid_t>(std::atoi(entry.path().filename().c_str()));
        const std::string status = pid > 1 && pid != getpid() ? content(entry.path() / "stat") : "";
        const size_t name = status.rfind(')');
        if (name != std::string::npos && name + 2 < status.size() && status[name + 2] != 'Z') {
            found.push_back(status.substr(0, name + 1));
        }
    }
    return found;
}

std::vector<std::string> Stage::locked() {
    std::vector<std::string> found;
    std::ifstream file(
        "/proc/locks");  // a lock of a process that this device does not see has number 0 or -1
    const std::string ofUs = ' ' + std::to_string(getpid()) + ' ';
    for (std::string line; std::getline(file, line);) {
        if (line.find(ofUs) == std::string::npos && line.find(" 0 ") == std::string::npos &&
            line.find(" -1 ") == std::string::npos) {
            found.push_back(line);
        }
    }
    return found;
}

}  // namespace emulator::sweep
