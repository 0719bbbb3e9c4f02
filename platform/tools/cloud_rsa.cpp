// cloud_rsa: encrypts a password as the device's web interface does, and exports the device's public key.

#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "cloud_owner.h"
#include "cloud_secret.h"
#include "rsa.h"
#include "rsa_key.h"
#include "state_file.h"
#include "tool_text.h"

namespace {

constexpr char kTool[] = "cloud_rsa";
constexpr std::array kCommands{"encrypt", "decrypt", "public", "--help", "--version"};
constexpr size_t kLongestInput = 4096;  // a cipher text takes 345 bytes, a tool may have wrapped it
constexpr size_t kPemBytes = 1024;      // a 2048-bit public key takes 451 bytes

struct KeyTexts {
    char key1[kKeyTextSize] = "";
    char key2[kKeyTextSize] = "";
    char key3[kKeyTextSize] = "";
};

[[nodiscard]] int _print(const char *text, const char *fault) {
    if (text == nullptr) {
        fprintf(stderr, "cloud_rsa: %s\n", fault);
        return kExitFailed;
    }
    return puts(text) >= 0 ? 0 : kExitFailed;
}

[[nodiscard]] int _encrypt(KeyTexts *keys, const char *text) {
    const HeapText cipher(librsa_encrypt(text, keys->key1, keys->key2));
    return _print(cipher.get(), "the text is too long for the key");
}

[[nodiscard]] int _decrypt(KeyTexts *keys, const char *cipher) {
    const HeapText text(librsa_decrypt(cipher, keys->key1, keys->key2, keys->key3));
    return _print(text.get(), "no cipher text of this device's key");
}

[[nodiscard]] int _public(const KeyTexts &keys) {
    RsaKey key;
    unsigned char pem[kPemBytes];
    if (!key.fromTexts(keys.key1, keys.key2, nullptr) ||
        mbedtls_pk_write_pubkey_pem(key.pk(), pem, sizeof(pem)) != 0) {
        return _print(nullptr, "cannot write the key as PEM");
    }
    return fputs(reinterpret_cast<const char *>(pem), stdout) >= 0 ? 0 : kExitFailed;  // ends in a newline
}

termios g_shown;  // the terminal's setting that a signal brings back

void _show_and_end(int signal) {
    tcsetattr(STDIN_FILENO, TCSANOW, &g_shown);
    raise(signal);  // as it would have been: the handler holds once
}

// While it exists standard input, a terminal, does not show what is typed. A signal that ends the tool, or
// stops it, first brings that back: the shell that goes on there may not.
class SilentTerminal {
public:
    SilentTerminal() {
        held_ = tcgetattr(STDIN_FILENO, &g_shown) == 0;
        struct sigaction action {};
        action.sa_handler = _show_and_end;
        action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
        for (const int signal : {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGTSTP}) {
            struct sigaction before {};
            if (sigaction(signal, nullptr, &before) == 0 && before.sa_handler == SIG_DFL) {
                sigaction(signal, &action, nullptr);
            }
        }
        termios silent = g_shown;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        silent.c_lflag |= ECHONL;
        held_ = held_ && tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent) == 0;
    }
    SilentTerminal(const SilentTerminal &) = delete;
    SilentTerminal &operator=(const SilentTerminal &) = delete;
    ~SilentTerminal() {
        if (held_) {
            tcsetattr(STDIN_FILENO, TCSAFLUSH, &g_shown);
        }
    }

private:
    bool held_ = false;
};

// A text on the command line can be read by every user of the host while the tool runs, and stays in the
// shell's history: without one it is asked for, or comes through a pipe. Its last newline is not part of it.
// @return what is wrong with the text; null when it was read.
[[nodiscard]] const char *_read_text(const char *question, std::span<char> room) {
    ssize_t length = 0;
    const std::span<unsigned char> bytes(reinterpret_cast<unsigned char *>(room.data()), room.size());
    if (isatty(STDIN_FILENO) != 0) {
        const SilentTerminal silent;
        fputs(question, stderr);
        length = read(STDIN_FILENO, room.data(), room.size());
        if (length == 0) {
            return "no text was given";  // the end of input, not an empty line
        }
    } else {
        length = state_readAll(STDIN_FILENO, bytes);
    }
    if (length < 0) {
        return strerror(errno);
    }
    if (static_cast<size_t>(length) >= room.size()) {
        return "the text is too long";
    }
    if (length > 0 && room[static_cast<size_t>(length) - 1] == '\n') {
        --length;
    }
    room[static_cast<size_t>(length)] = '\0';
    return strlen(room.data()) == static_cast<size_t>(length) ? nullptr : "the text holds a NUL";
}

[[nodiscard]] int _usage(FILE *output, int status) {
    fprintf(output,
            "Usage: cloud_rsa encrypt [[--] TEXT]  prints the cipher text, one line of Base64;\n"
            "                                      -- where the text may be an option. Without a text\n"
            "                                      it is asked for, or read from standard input: other\n"
            "                                      users see the words of a command\n"
            "       cloud_rsa decrypt [[--] CIPHER]\n"
            "       cloud_rsa public               prints the public key as PEM\n"
            "       cloud_rsa --help | --version\n");
    return status;
}

[[nodiscard]] bool _is_help(const char *word) {
    return strcmp(word, "-h") == 0 || strcmp(word, "--help") == 0;
}

[[nodiscard]] int _run(int argc, char **argv) {
    const char *const command = argc > 1 ? argv[1] : "";
    const bool ended = argc > 2 && strcmp(argv[2], "--") == 0;  // whatever follows is no option
    const char *text = argc == (ended ? 4 : 3) ? argv[argc - 1] : nullptr;
    if (_is_help(command) || (text != nullptr && !ended && _is_help(text))) {
        return _usage(stdout, 0);
    }
    if (tool_answersVersion(kTool, argc, argv)) {
        return 0;
    }
    const bool given = text != nullptr || argc == 2;  // with no word at all, the text comes from elsewhere
    const bool encrypts = given && strcmp(command, "encrypt") == 0;
    const bool decrypts = given && strcmp(command, "decrypt") == 0;
    if (!encrypts && !decrypts && !(argc == 2 && strcmp(command, "public") == 0)) {
        const bool known = std::any_of(kCommands.begin(), kCommands.end(),
                                       [&](const char *name) { return strcmp(command, name) == 0; });
        return known || argc < 2 ? _usage(stderr, kExitUsage)
                                 : tool_wrongWord(kTool, "command", command, kCommands);
    }
    SecretBuffer<kLongestInput> typed;
    if ((encrypts || decrypts) && text == nullptr) {
        const char *const question = encrypts ? "Text to encrypt: " : "Cipher text: ";
        if (const char *const fault = _read_text(question, {typed.data(), kLongestInput})) {
            fprintf(stderr, "%s: standard input: %s\n", kTool, fault);
            return kExitFailed;
        }
        text = typed.data();
    }
    KeyTexts keys;
    errno = 0;
    if (librsa_get_keys(keys.key1, keys.key2, decrypts ? keys.key3 : nullptr) != 0) {
        const int reason = errno;
        PathText path;
        return state_keyFile(&path) ? tool_fileFailed(kTool, path.data(), "read or made", reason)
                                    : _print(nullptr, "no place for the key: set HOME or CLOUD_RSA_KEY_FILE");
    }
    if (encrypts) {
        return _encrypt(&keys, text);
    }
    return decrypts ? _decrypt(&keys, text) : _public(keys);
}

}  // namespace

int main(int argc, char **argv) {
    return tool_ended(kTool, _run(argc, argv));
}
