// The files of the page, as the build has put them into the program.
#pragma once

#include <span>
#include <string_view>

namespace emulator {

struct PageFile {
    std::string_view name;
    std::string_view content;
};

/// All of them; "index.html" is one. They live as long as the program.
[[nodiscard]] std::span<const PageFile> page_files();

}  // namespace emulator
