// The one entry of all targets: libFuzzer's, or main() of the replay.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <set>

#include "fuzz.h"

namespace {

// In room of its exact size, so that a look past the end shows.
class Exact {
public:
    Exact(const char *data, size_t size) : room_(std::make_unique<char[]>(size)), size_(size) {
        std::copy_n(data, size, room_.get());
    }
    [[nodiscard]] std::string_view text() const { return {room_.get(), size_}; }

private:
    std::unique_ptr<char[]> room_;
    size_t size_;
};

}  // namespace

#ifdef CLOUD_LIBFUZZER

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    fuzz::enter();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const Exact input(reinterpret_cast<const char *>(data), size);
    fuzz::run(fuzz::targets().front(), input.text());
    return 0;
}

// A length that nobody has memory for is an allocation failure of the code under test, not the fuzzer's.
extern "C" const char *__asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=64";
}

#else

// Replays CORPUS/<target>/* with each target: as it is, then with each call of the system or for memory
// failing, once and for ever after. A target without a corpus is a failure, and so is the reverse.
int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s CORPUS\n", argv[0]);
        return 2;
    }
    std::set<std::filesystem::path> folders;
    for (const auto &entry : std::filesystem::directory_iterator(argv[1])) {
        folders.insert(entry.path());
    }
    fuzz::enter();
    for (const fuzz::Target &target : fuzz::targets()) {
        const std::filesystem::path folder = std::filesystem::path(argv[1]) / target.name;
        if (folders.erase(folder) == 0) {
            fprintf(stderr, "%s: missing\n", folder.c_str());
            return 1;
        }
        for (const auto &entry : std::filesystem::directory_iterator(folder)) {
            printf("%s\n", entry.path().c_str());
            fflush(stdout);
            const std::string content = fuzz::file(entry.path().c_str());
            const Exact input(content.data(), content.size());
            fuzz::run(target, input.text());
            for (const bool forEver : {false, true}) {
                for (int call = 1; fuzz::run(target, input.text(), {call, forEver}); ++call) {
                }
            }
        }
    }
    for (const auto &folder : folders) {
        fprintf(stderr, "%s: no target of this name\n", folder.c_str());
    }
    return folders.empty() ? 0 : 1;
}

#endif
