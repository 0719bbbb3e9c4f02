// cloud_rsa: encrypts a password as the device's web interface does, and exports the device's public key.

#include <cstdio>
#include <cstring>

#include "cloud_owner.h"
#include "rsa.h"
#include "rsa_key.h"

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr size_t kPemSize = 1024;  // a 2048-bit public key takes 451 bytes

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
    unsigned char pem[kPemSize];
    if (!key.fromTexts(keys.key1, keys.key2, nullptr) ||
        mbedtls_pk_write_pubkey_pem(key.pk(), pem, sizeof(pem)) != 0) {
        return _print(nullptr, "cannot write the key as PEM");
    }
    return fputs(reinterpret_cast<const char *>(pem), stdout) >= 0 ? 0 : kExitFailed;  // ends in a newline
}

[[nodiscard]] int _usage(FILE *output, int status) {
    fprintf(output,
            "Usage: cloud_rsa encrypt [--] TEXT    prints the cipher text, one line of Base64;\n"
            "                                      -- where the text may be an option\n"
            "       cloud_rsa decrypt [--] CIPHER\n"
            "       cloud_rsa public               prints the public key as PEM\n");
    return status;
}

[[nodiscard]] bool _is_help(const char *word) {
    return strcmp(word, "-h") == 0 || strcmp(word, "--help") == 0;
}

}  // namespace

int main(int argc, char **argv) {
    const char *const command = argc > 1 ? argv[1] : "";
    const bool ended = argc > 2 && strcmp(argv[2], "--") == 0;  // whatever follows is no option
    const char *const text = argc == (ended ? 4 : 3) ? argv[argc - 1] : nullptr;
    if (_is_help(command) || (text != nullptr && !ended && _is_help(text))) {
        return _usage(stdout, 0);
    }
    const bool encrypts = text != nullptr && strcmp(command, "encrypt") == 0;
    const bool decrypts = text != nullptr && strcmp(command, "decrypt") == 0;
    if (!encrypts && !decrypts && !(argc == 2 && strcmp(command, "public") == 0)) {
        return _usage(stderr, kExitUsage);
    }
    KeyTexts keys;
    if (librsa_get_keys(keys.key1, keys.key2, decrypts ? keys.key3 : nullptr) != 0) {
        return _print(nullptr, "no key can be read or made");
    }
    if (encrypts) {
        return _encrypt(&keys, text);
    }
    return decrypts ? _decrypt(&keys, text) : _public(keys);
}
