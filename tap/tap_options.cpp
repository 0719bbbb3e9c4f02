#include "tap_options.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <string_view>

#include "nearest_word.h"
#include "tap_socket.h"

namespace {

constexpr std::string_view kUsage =
    "Usage: kxcc-tap [OPTION...] [JOURNAL]\n"
    "Stands between the cloud broker and its clients and writes every message to JOURNAL, or to\n"
    "standard output. Ends, and gives the socket back, at SIGINT, SIGTERM or SIGHUP.\n"
    "\n"
    "  --socket PATH   the broker's socket (/tmp/cloud-brd)\n"
    "  --wait          wait until there is one\n"
    "  --limit KIB     end when the journal has this size; 0: never (4096 for a file)\n"
    "  --restore       give the socket back that a killed kxcc-tap has left aside\n"
    "  --version, --help\n";

constexpr std::array<std::string_view, 6> kOptions{"--socket",  "--wait",    "--limit",
                                                   "--restore", "--version", "--help"};

void _print(std::string_view text) {
    while (!text.empty()) {
        const ssize_t size = write(STDOUT_FILENO, text.data(), text.size());
        if (size <= 0 && errno != EINTR) {
            return;
        }
        text.remove_prefix(size > 0 ? static_cast<size_t>(size) : 0);
    }
}

// Says what is wrong with a word that is none of those taken. @return the exit status.
int _wrong_word(const char *word, bool journalTaken) {
    const std::string_view near = nearest_word(word, kOptions);
    if (near == word) {
        dprintf(STDERR_FILENO, "kxcc-tap: %s needs a value\n", word);
    } else if (word[0] != '-') {
        dprintf(STDERR_FILENO, "kxcc-tap: %s: %s\n", word,
                journalTaken ? "there is a JOURNAL already" : "no name of a JOURNAL");
    } else {
        dprintf(STDERR_FILENO, "kxcc-tap: there is no option %s%s%.*s%s (see kxcc-tap --help)\n", word,
                near.empty() ? "" : "; did you mean ", static_cast<int>(near.size()), near.data(),
                near.empty() ? "" : "?");
    }
    return 2;
}

}  // namespace

int parse_options(int argc, char **argv, Options *options) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i];
        const std::string_view value = i + 1 < argc ? argv[i + 1] : "";
        if (word == "--help" || word == "-h") {
            _print(kUsage);
            return 0;
        }
        if (word == "--version") {
            _print("kxcc-tap " KXCC_TAP_VERSION "\n");
            return 0;
        }
        if (word == "--wait") {
            options->wait = true;
        } else if (word == "--restore") {
            options->restore = true;
        } else if (word == "--socket" && !value.empty()) {
            if (!TapSocket::fits(value)) {
                dprintf(STDERR_FILENO, "kxcc-tap: --socket: the path is too long: %s\n", argv[i + 1]);
                return 2;
            }
            options->socket = argv[++i];
        } else if (word == "--limit" && !value.empty()) {
            const auto read = std::from_chars(value.begin(), value.end(), options->limitKib);
            if (read.ec != std::errc{} || read.ptr != value.end() ||
                options->limitKib > UINT64_MAX / kBytesPerKib) {
                dprintf(STDERR_FILENO, "kxcc-tap: --limit: no number: %s\n", argv[i + 1]);
                return 2;
            }
            options->limited = true;
            ++i;
        } else if (options->journal == nullptr && !word.empty() && word[0] != '-') {
            options->journal = argv[i];
        } else {
            return _wrong_word(argv[i], options->journal != nullptr);
        }
    }
    return -1;
}
