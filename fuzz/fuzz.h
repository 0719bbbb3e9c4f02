// What all fuzz targets share: a private world that answers with the bytes under test.
//
// A target drives one parser of foreign bytes through the smallest call of its module, and says what must
// hold for any input. Each becomes a libFuzzer program of its own (preset "fuzz", script/fuzz); all together
// become fuzz_replay, which runs the corpus in the ordinary tests.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

struct Target {
    const char *name;
    void (*run)(std::string_view input);
};

/// The targets linked into this program; FUZZ_TARGET adds one.
[[nodiscard]] std::vector<Target> &targets();

/// Gives this process a /tmp and a console of its own.
void enter();

/// A call of the system or for memory that fails.
struct Fault {
    int call = 0;           ///< the nth one; 0: none
    bool for_ever = false;  ///< and every one after it
};

/// Runs the target; ends the process when it leaves a descriptor open.
/// @return whether the call that was to fail was made.
bool run(const Target &target, std::string_view input, Fault fault = {});

/// Whether a call has failed in this run.
[[nodiscard]] bool failed();

/// From here on nothing fails: what follows is the target's own look at the outcome.
void calm();

/// Ends the process with a finding.
[[noreturn]] void fail(const char *file, int line, const char *what);

/// Cuts the input's first part, up to a NUL (which goes) or its end.
[[nodiscard]] std::string cut(std::string_view &input);
/// Cuts its first byte; 0 when it is empty.
[[nodiscard]] unsigned char cut_byte(std::string_view &input);

void put_file(const char *path, std::string_view content);
/// Its bytes; "" when there is none.
[[nodiscard]] std::string file(const char *path);

/// What the configuration store's records hold from now on, as far as it goes; the rest of them is zeros.
void fill_store(std::string_view records);

/// What the broker sends on each connection to it, right after it is made; then it ends its side.
void set_broker(std::string bytes);

/// What the management daemon answers to each datagram.
void set_daemon(std::string reply);

/// How the image server answers the next downloads: what to tell as the length, the content, and a byte for
/// each piece in which that comes.
void set_image(double length, std::string content, std::string pieces);

}  // namespace fuzz

// What holds always, and what holds as long as no call of the system has failed.
#define FUZZ_HOLDS(condition)                           \
    do {                                                \
        if (!(condition)) {                             \
            fuzz::fail(__FILE__, __LINE__, #condition); \
        }                                               \
    } while (0)
#define FUZZ_EXPECT(condition) FUZZ_HOLDS((condition) || fuzz::failed())

#define FUZZ_TARGET(name)                                                                                 \
    static void run_##name(std::string_view input);                                                       \
    [[maybe_unused]] static const bool l_##name = (fuzz::targets().push_back({#name, run_##name}), true); \
    static void run_##name(std::string_view input)
