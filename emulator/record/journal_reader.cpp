#include "journal_reader.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace emulator {
namespace {

[[noreturn]] void _fail(const std::string &what) {
    throw std::system_error(errno, std::generic_category(), what);
}

bool _is_record(const json &line) {
    return line.is_object() && line.contains("kind") && line.at("kind").is_string();
}

}  // namespace

JournalReader::JournalReader(const std::string &path, bool follow)
    : input_(path == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                         : open(path.c_str(), O_RDONLY | O_CLOEXEC)),
      name_(path == "-" ? "standard input" : path) {
    struct stat status {};
    if (!input_.ok() || fstat(input_.get(), &status) != 0) {
        _fail(name_);
    }
    if (follow && S_ISREG(status.st_mode)) {
        growth_.reset(inotify_init1(IN_CLOEXEC));
        const std::string same = "/proc/self/fd/" + std::to_string(input_.get());
        if (!growth_.ok() || inotify_add_watch(growth_.get(), same.c_str(), IN_MODIFY) < 0) {
            _fail(name_);
        }
    }
}

// Waits until a file that is followed has changed. One that was begun anew is read from its start.
void JournalReader::_await_growth() {
    std::array<char, 4096> events{};
    struct stat status {};
    while (fstat(input_.get(), &status) == 0 && status.st_size == lseek(input_.get(), 0, SEEK_CUR)) {
        if (read(growth_.get(), events.data(), events.size()) < 0 && errno != EINTR) {
            _fail("inotify");
        }
    }
    if (status.st_size < lseek(input_.get(), 0, SEEK_CUR)) {
        lseek(input_.get(), 0, SEEK_SET);
        rest_.clear();
        searched_ = 0;
    }
}

// Reads more. @return false at the end.
bool JournalReader::_fill() {
    std::array<char, 65536> buffer{};
    for (;;) {
        const ssize_t size = read(input_.get(), buffer.data(), buffer.size());
        if (size > 0) {
            rest_.append(buffer.data(), static_cast<size_t>(size));
            return true;
        }
        if (size < 0 && errno != EINTR && errno != ECONNRESET) {
            _fail(name_);
        }
        if (size == 0 && growth_.ok()) {
            _await_growth();
        } else if (size == 0 || errno == ECONNRESET) {
            return false;
        }
    }
}

std::optional<json> JournalReader::next() {
    for (;;) {
        size_t end = 0;
        while ((end = rest_.find('\n', searched_)) == std::string::npos) {
            searched_ = rest_.size();
            if (!_fill()) {
                return {};
            }
        }
        json record =
            json::parse(rest_.begin(), rest_.begin() + static_cast<std::ptrdiff_t>(end), nullptr, false);
        rest_.erase(0, end + 1);
        searched_ = 0;
        if (_is_record(record)) {
            return record;
        }
        ++foreign_;
    }
}

std::vector<json> read_journal(const std::string &path) {
    JournalReader reader(path);
    std::vector<json> records;
    while (std::optional<json> record = reader.next()) {
        records.push_back(std::move(*record));
    }
    if (records.empty() && reader.foreign() > 0) {
        throw std::invalid_argument(path + " is no journal: no line of it is a record");
    }
    return records;
}

}  // namespace emulator
