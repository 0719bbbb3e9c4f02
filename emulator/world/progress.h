// The firmware status file as a progress bar.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <thread>

namespace emulator {

/// Shows the status file as a bar in the width of the terminal, redrawn in place as the file or the width
/// changes, from a thread of its own until it is destroyed. Where the output is no terminal, a line for each
/// state and each tenth instead.
class ProgressBar {
public:
    /// @param out  std::cout or std::cerr; must outlive it.
    explicit ProgressBar(std::ostream &out);
    ~ProgressBar();
    ProgressBar(const ProgressBar &) = delete;
    ProgressBar &operator=(const ProgressBar &) = delete;

    /// Waits until the firmware command that writes the status file has ended: the file has changed since
    /// the bar was made, to a state that ends a command. Gives up when nothing changes: after two seconds
    /// where no command seems to run, after a minute where one does.
    /// @return what to tell of a lock that a killed command left, or "".
    [[nodiscard]] std::string await_end() const;

private:
    // Inode and time: a change of the status file replaces it or is written over it.
    using FileMark = std::array<int64_t, 3>;

    [[nodiscard]] static FileMark _mark();
    void _show();

    std::ostream &out_;
    const int terminal_;  // its descriptor, or -1
    const FileMark first_ = _mark();
    std::string last_;
    size_t columns_ = 0;  // when last_ was drawn
    std::atomic<bool> ended_{false};
    std::thread drawer_;
};

/// The bar's line: a status file's number and percentage in at most so many columns; "" for a number that is
/// no state. What is beyond 100 % shows as 100 %.
[[nodiscard]] std::string progress_line(int status, int percent, size_t columns);

/// Columns of the terminal of a descriptor; 0: it is none.
[[nodiscard]] size_t terminal_columns(int fd);

}  // namespace emulator
