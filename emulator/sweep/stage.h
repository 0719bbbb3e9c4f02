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
    explicit Stage(Setup setup);

    /// A fresh device, in the state that the command is to meet: the first time by the commands before it,
    /// then as that left it.
    void prepare();

    [[nodiscard]] Device &device() { return *device_; }
    [[nodiscard]] const Setup &setup() const { return setup_; }
    [[nodiscard]] const std::vector<std::string> &words() const { return words_; }

    /// What must be old or new, each, never between: the store's records, the device in the cloud, the
    /// broker's mode.
    [[nodiscard]] json state();

    /// Everything in "/tmp" that is neither the neighbours' nor planted.
    [[nodiscard]] static std::vector<std::string> names();

    /// What "/tmp" and the flash hold, to be put back.
    [[nodiscard]] static Files files();
    static void put_files(const Files &files);

    /// What became of things that are others'; a text each.
    /// @param withLines  their lines in the list of local accounts count, too.
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

/// Gives it to another user, where this one may (root).
bool give_away(const std::string &path);

[[nodiscard]] std::string content(const std::string &path);

}  // namespace emulator::sweep
