// Owners of what must not stay in memory: each wipes before it releases.
#pragma once

#include <cjson/cJSON.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>

/// A text buffer that starts as zeros and is wiped at the end of its scope.
template <size_t kSize>
class SecretBuffer {
public:
    SecretBuffer() = default;
    SecretBuffer(const SecretBuffer &) = delete;
    SecretBuffer &operator=(const SecretBuffer &) = delete;
    ~SecretBuffer() { explicit_bzero(text_.data(), kSize); }
    [[nodiscard]] char *data() { return text_.data(); }
    [[nodiscard]] static constexpr size_t size() { return kSize; }

private:
    std::array<char, kSize> text_{};
};

/// A record that is wiped at the end of its scope.
template <class Record>
struct Wiped : Record {
    ~Wiped() { explicit_bzero(this, sizeof *this); }
};

/// Releases a text and leaves nothing of it behind.
struct SecretReleaser {
    void operator()(char *text) const {
        explicit_bzero(text, strlen(text));
        free(text);
    }
};
using SecretText = std::unique_ptr<char, SecretReleaser>;

/// Deletes a JSON tree and leaves nothing of its texts behind.
struct SecretTreeReleaser {
    void operator()(cJSON *tree) const {
        _wipe(tree);
        cJSON_Delete(tree);
    }

private:
    static void _wipe(const cJSON *item) {
        if (item->valuestring != nullptr) {
            explicit_bzero(item->valuestring, strlen(item->valuestring));
        }
        for (const cJSON *child = item->child; child != nullptr; child = child->next) {
            _wipe(child);
        }
    }
};
using SecretTree = std::unique_ptr<cJSON, SecretTreeReleaser>;

/// Wipes all of its room, not only up to a text's end.
struct RoomReleaser {
    size_t room = 0;
    void operator()(char *text) const {
        explicit_bzero(text, room);
        free(text);
    }
};

/// Prints a tree without white space, and leaves no copy behind: the library's own printing grows its buffer
/// by releasing smaller ones as they are.
/// @return the text; null without memory, or beyond 256 MiB.
[[nodiscard]] inline SecretText cloud_printSecret(cJSON *tree) {
    constexpr int kFirstRoom = 1024;
    constexpr int kLargestRoom = 1 << 28;
    for (int room = kFirstRoom; room <= kLargestRoom; room *= 4) {
        const auto bytes = static_cast<size_t>(room);
        std::unique_ptr<char, RoomReleaser> text(static_cast<char *>(calloc(bytes, 1)), RoomReleaser{bytes});
        if (text == nullptr) {
            break;
        }
        if (cJSON_PrintPreallocated(tree, text.get(), room, 0) != 0) {
            return SecretText(text.release());
        }
    }
    return nullptr;
}
