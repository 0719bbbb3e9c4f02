// Where a sweep's runs take place: a device that is made anew for each, with other users' things on it, and
// what can be seen of it from outside.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "device.h"
#include "image_server.h"

namespace emulator::sweep {

/// What a sweep is about.
struct Setup {
    Command command;  ///< the word "rsa:TEXT" stands for TEXT, enciphered
    json scenario = json::object();
    json cloud = json::object();
    std::chrono::milliseconds watchdog{60000};
};

/// Files of the device's own with modes, for putting them back.
using Files = std::map<std::string, std::pair<mode_t, std::string>>;

class Stage {
public:
    /// Makes device and image server. @throws  as Device and make_image_server().
    explicit Stage(Setup setup);

    /// A fresh device, in the state that the command is to meet. The first call runs the commands that go
    /// before it and remembers what they left; later calls put that back.
    /// @throws std::runtime_error  one of those commands fails.
    void prepare();

    [[nodiscard]] Device &device() { return *device_; }
    [[nodiscard]] const Setup &setup() const { return setup_; }
    [[nodiscard]] const std::vector<std::string> &words() const { return words_; }

    /// The store's records, the device in the cloud, the broker's mode: each must be as before a run or as
    /// after a good one.
    [[nodiscard]] json state();

    /// Every name in "/tmp" that is not a neighbour's, planted, or a folder of the host.
    [[nodiscard]] static std::vector<std::string> names();

    /// What "/tmp" and the flash hold, to be put back.
    [[nodiscard]] static Files files();
    static void put_files(const Files &files);

    /// Which of the things of other users are not as they were; a text each.
    /// @param withLines  whether their lines in the list of local accounts count, too.
    [[nodiscard]] std::vector<std::string> harmed(bool withLines) const;

    /// What still runs, and what is still locked; a text each.
    [[nodiscard]] static std::vector<std::string> running();
    [[nodiscard]] static std::vector<std::string> locked();

private:
    [[nodiscard]] std::vector<std::string> _resolved(std::vector<std::string> words);
    void _first_time();

    const Setup setup_;
    std::unique_ptr<Device> device_;
    std::unique_ptr<ImageServer> images_;
    std::vector<std::string> words_;
    Files files_;  // as the commands before left the device
    json cloud_;
    int logic_ = 0;
    uid_t others_ = 0;  // who owns what was planted
};

inline constexpr const char *kPasswdPath = "/tmp/passwd";
inline constexpr const char *kVictimPath = "/tmp/.others_victim";  ///< a file of another user's
inline constexpr uid_t kOtherUser = 12345;

/// Gives a file to another user. @return false where this user may not (only root may).
bool give_away(const std::string &path);

/// The bytes of a file; "" for a folder and where it cannot be read.
[[nodiscard]] std::string content(const std::string &path);

}  // namespace emulator::sweep
