#include "scene.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <system_error>

#include "wire.h"

namespace emulator::sweep {
namespace {

namespace fs = std::filesystem;

constexpr int kDelayMs = 4000;  // more than a read of the client library waits
constexpr int kSlowMs = 1000;
constexpr int kSlowBytes = 5;  // then the rest at once: what a byte more does has been seen by then
constexpr const char *kTmp = "/tmp";
constexpr const char *kFiller = "/tmp/.others_filler";
constexpr size_t kPage = 4096;
constexpr std::array kBrokerFaults{"cut", "delay", "lie", "slow"};
constexpr std::array kWholeFaults{"full", "page", "readonly"};
constexpr std::array kFileFaults{"link", "nowhere", "hardlink", "fifo", "folder", "foreign"};

[[noreturn]] void _fail(const std::string &what) {
    throw std::system_error(errno, std::generic_category(), what);
}

void _remount(unsigned long flags, const char *options) {
    if (mount("none", kTmp, "none", MS_REMOUNT | MS_NOSUID | MS_NODEV | flags, options) != 0) {
        _fail("remount of /tmp");
    }
}

// Until nothing more goes in, then so many bytes are freed again.
void _fill(size_t left) {
    _remount(0, "size=2m");
    std::ofstream file(kFiller, std::ios::binary);
    const std::string block(kPage, 'f');
    size_t size = 0;
    while ((file << block).flush()) {
        size += kPage;
    }
    file.close();
    if (truncate(kFiller, static_cast<off_t>(size - std::min(size, left))) != 0) {
        _fail(kFiller);
    }
}

// A folder of the host's "/tmp" that is shown in the device's, as that of this program may be.
bool _is_the_hosts(const std::string &path) {
    struct stat tmp {};
    struct stat top {};
    const std::string first = path.substr(0, path.find('/', std::strlen(kTmp) + 1));
    return lstat(kTmp, &tmp) == 0 && lstat(first.c_str(), &top) == 0 && tmp.st_dev != top.st_dev;
}

}  // namespace

Scene::Scene(Stage &stage, const Point &point) : stage_(stage), point_(point) {
    if (point.kind == "broker") {
        _broker();
    } else if (point.kind == "files" && point.place == kTmp) {
        _whole_tmp();
    } else if (point.kind == "files") {
        _one_file();
    }
}

Scene::~Scene() {
    try {
        end();
    } catch (const std::exception &) {  // the device ends as well
    }
}

void Scene::_broker() {
    const size_t dot = point_.place.find('.');
    const size_t last = point_.place.rfind('.');
    const size_t after = static_cast<size_t>(std::max(point_.number - 1, 0));
    json effect;
    if (point_.fault == "cut") {
        effect = {{"close_after", after}};
    } else if (point_.fault == "lie") {
        effect = {{"flip", after}};
    } else if (point_.fault == "delay") {
        effect = {{"trickle", {{"after", after}, {"ms", kDelayMs}}}};
    } else if (point_.fault == "slow") {
        effect = {{"trickle", {{"after", after}, {"ms", kSlowMs}, {"bytes", 1}, {"times", kSlowBytes}}}};
    } else {
        throw std::invalid_argument(to_text(point_) + ": no fault of the broker");
    }
    json rules = stage_.setup().scenario.value("rules", json::array());
    rules.push_back({{"on", point_.place.substr(dot + 1, last - dot - 1)},
                     {"connection", std::stoi(point_.place.substr(0, dot))},
                     {"nth", std::stoi(point_.place.substr(last + 1))},
                     {"do", effect}});
    stage_.device().broker().set_rules(rules);
}

void Scene::_whole_tmp() {
    if (point_.fault == "readonly") {
        _remount(MS_RDONLY, nullptr);
    } else if (point_.fault == "full" || point_.fault == "page") {
        _fill(point_.fault == "page" ? kPage : 0);
    } else {
        throw std::invalid_argument(to_text(point_) + ": no fault of /tmp");
    }
}

void Scene::_one_file() {
    const std::string &path = point_.place;
    const std::string &fault = point_.fault;
    struct stat status {};
    existed_ = lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
    if (existed_) {
        mode_ = status.st_mode & 07777;
        content_ = content(path);
    }
    fs::create_directories(fs::path(path).parent_path());
    if (fault != "foreign") {
        fs::remove_all(path);
    }
    int done = 0;
    if (fault == "link") {
        done = symlink(kVictimPath, path.c_str());
    } else if (fault == "nowhere") {
        done = symlink("/tmp/.others_nowhere", path.c_str());
    } else if (fault == "hardlink") {
        done = link(kVictimPath, path.c_str());
    } else if (fault == "fifo") {
        done = mkfifo(path.c_str(), 0666);
    } else if (fault == "folder") {
        fs::create_directory(path);
        std::ofstream(path + "/.others_in_it") << "kept\n";
    } else if (fault == "foreign") {
        if (!existed_) {
            std::ofstream(path).flush();
        }
        done = give_away(path) ? 0 : -1;
    } else {
        throw std::invalid_argument(to_text(point_) + ": no fault of a file");
    }
    if (done != 0) {
        _fail(to_text(point_));
    }
}

void Scene::end() {
    if (ended_) {
        return;
    }
    ended_ = true;
    if (point_.kind == "broker") {
        stage_.device().broker().set_rules(stage_.setup().scenario.value("rules", json::array()));
    } else if (point_.kind == "files" && point_.place == kTmp) {
        _remount(0, "size=50%");
        unlink(kFiller);
    } else if (point_.kind == "files") {
        // What the program has put in its place by then is the program's.
        struct stat status {};
        struct stat victim {};
        const bool there = lstat(point_.place.c_str(), &status) == 0;
        stat(kVictimPath, &victim);
        if (there && S_ISREG(status.st_mode) && status.st_ino != victim.st_ino &&
            status.st_uid != kOtherUser) {
            return;
        }
        fs::remove_all(point_.place);
        if (existed_) {
            std::ofstream(point_.place, std::ios::binary) << content_;
            chmod(point_.place.c_str(), mode_);
        }
    }
}

std::vector<Point> broker_points(const std::vector<json> &journal) {
    std::map<std::string, int> seen;   // messages of a kind on a connection
    std::map<int, std::string> asked;  // the last one, by connection
    std::vector<Point> points;
    for (const json &record : journal) {
        const bool connect = record.at("kind") == "connect";
        if (!connect && record.at("kind") != "message") {
            continue;
        }
        const int connection = record.at("connection");
        if (connect || record.at("from") == "client") {
            const std::string name = connect ? message_name(kAccept) : record.at("name").get<std::string>();
            const std::string place = std::to_string(connection) + '.' + name;
            asked[connection] = place + '.' + std::to_string(++seen[place]);
            continue;
        }
        const auto bytes = static_cast<int>(kHeaderSize + record.at("body").get<std::string>().size());
        for (int byte = 1; byte <= bytes; ++byte) {
            for (const char *fault : kBrokerFaults) {
                points.push_back({"broker", asked[connection], byte, fault});
            }
        }
    }
    return points;
}

std::vector<Point> file_points(const std::vector<std::string> &paths) {
    std::vector<Point> points;
    for (const char *fault : kWholeFaults) {
        points.push_back({"files", kTmp, 0, fault});
    }
    for (const std::string &path : paths) {
        struct stat status {};
        if (path.starts_with("/tmp/.others") || _is_the_hosts(path) ||
            (lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode))) {
            continue;
        }
        for (const std::string fault : kFileFaults) {
            if (fault == "foreign" && !give_away(kVictimPath)) {
                continue;  // nothing can be given away by this user
            }
            points.push_back({"files", path, 0, fault});
        }
    }
    return points;
}

}  // namespace emulator::sweep
