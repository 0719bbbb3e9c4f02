// The foreign platform at work: cloud_probe in a process of its own, with the two libraries loaded, told call
// by call what to do. Under an emulator it runs libraries of another processor.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "descriptor.h"

namespace emulator {
class Process;
}

namespace emulator::check {

/// What is checked, and how it is run.
struct Platform {
    std::vector<std::string> probe;  ///< the words that start cloud_probe
    std::string wrapper;             ///< libwrapper.so
    std::string rsa;                 ///< librsa.so
    std::string image;               ///< a firmware image that it takes; empty: none is known
    bool install = false;            ///< whether that may be installed
};

enum class Library { kWrapper, kRsa };

class Probe {
public:
    /// Starts it and loads one library.
    /// @throws Failed  the probe does not start, or the library does not load or lacks a function.
    Probe(const Platform &platform, Library library);

    Probe(Probe &&) noexcept;
    Probe &operator=(Probe &&) = delete;
    ~Probe();

    /// Has one call done.
    /// @return the words of the answer, of which the first is the call's result.
    /// @throws Failed  the process has ended, or the call does not return within a minute.
    std::vector<std::string> ask(const std::string &call);

    [[nodiscard]] size_t word_size() const { return word_size_; }
    [[nodiscard]] bool big_endian() const { return big_endian_; }
    /// What the process has printed up to now.
    [[nodiscard]] std::string printed() const;
    /// Ends the process. A call that waits in another thread fails.
    void kill();

private:
    Probe(const Platform &platform, Library library, const std::string &path);
    [[nodiscard]] std::string _line(const std::string &asked);

    Descriptor listening_;
    std::unique_ptr<Process> process_;
    Descriptor fd_;
    std::string rest_;
    size_t word_size_ = 0;
    bool big_endian_ = false;
};

/// Bytes as the probe writes them: "-" for a null pointer, "=" for none.
[[nodiscard]] std::string coded(const std::optional<std::string> &bytes);
/// The bytes of such a word; none for a null pointer.
[[nodiscard]] std::optional<std::string> decoded(const std::string &word);

/// An output as the library left it.
/// @param word  of an answer: the room and its guard.
/// @throws Failed  the guard was written to.
[[nodiscard]] std::string output_of(const std::string &word);

/// What an output holds that nothing was written to.
[[nodiscard]] std::string untouched(size_t size);

/// Bytes without a short period, other ones for each seed, so that a byte at a wrong place shows.
[[nodiscard]] std::string pattern(size_t size, unsigned seed);
[[nodiscard]] std::string letters(size_t size, unsigned seed);  ///< the same, as small letters

}  // namespace emulator::check
