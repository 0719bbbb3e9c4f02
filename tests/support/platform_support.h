// What the tests of the reference platform share: a state folder of their own, and the tools.
#pragma once

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace platform_test {

using Bytes = std::vector<unsigned char>;

/// A fresh folder for store, key and flash: CLOUD_STORE_FILE names the store in it, the others are beside
/// that.
class StateFolder {
public:
    StateFolder() : root_(std::filesystem::temp_directory_path() / "platform_XXXXXX") {
        std::string name = root_;
        if (mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("no temporary folder");
        }
        root_ = name;
        setenv("CLOUD_STORE_FILE", store().c_str(), 1);
        unsetenv("CLOUD_RSA_KEY_FILE");
        unsetenv("CLOUD_FLASH_DIR");
    }
    StateFolder(const StateFolder &) = delete;
    StateFolder &operator=(const StateFolder &) = delete;
    ~StateFolder() { std::filesystem::remove_all(root_); }

    [[nodiscard]] std::filesystem::path root() const { return root_; }
    [[nodiscard]] std::filesystem::path folder() const { return root_ / "made" / "on" / "demand"; }
    [[nodiscard]] std::filesystem::path store() const { return folder() / "store.db"; }
    [[nodiscard]] std::filesystem::path key() const { return folder() / "rsa_key.pem"; }

private:
    std::filesystem::path root_;
};

inline unsigned mode_of(const std::filesystem::path &path) {
    struct stat found {};
    return stat(path.c_str(), &found) == 0 ? found.st_mode & 07777 : 0;
}

inline std::string text_of(const std::filesystem::path &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void write_file(const std::filesystem::path &path, const std::string &text) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

struct Ran {
    int status;  // exit status; -1 when a signal ended it
    std::string out;
};

/// Runs a shell line in which the tools are found by their names; standard error goes with `out`.
inline Ran shell(const std::string &line) {
    const std::string tools = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    FILE *const pipe = popen(("PATH=" + tools + ":$PATH; exec 2>&1; " + line).c_str(), "re");
    Ran ran{-1, ""};
    if (pipe != nullptr) {
        for (int c = 0; (c = getc(pipe)) != EOF;) {
            ran.out += static_cast<char>(c);
        }
        const int status = pclose(pipe);
        ran.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    return ran;
}

/// A process of its own for one function; killed with its owner.
class Child {
public:
    template <class Work>
    explicit Child(Work work) : pid_(fork()) {
        if (pid_ == 0) {
            _exit(work());
        }
    }
    Child(Child &&other) noexcept : pid_(std::exchange(other.pid_, -1)) {}
    Child &operator=(Child &&) = delete;
    ~Child() { kill(); }

    void kill() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            static_cast<void>(wait());
        }
    }
    /// @return its exit status; -1 when a signal ended it.
    int wait() {
        int status = 0;
        const bool ended = waitpid(std::exchange(pid_, -1), &status, 0) > 0 && WIFEXITED(status);
        return ended ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t pid_;
};

}  // namespace platform_test
