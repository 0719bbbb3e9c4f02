#include "flash.h"

#include <elf.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string_view>

namespace emulator {
namespace {

constexpr std::string_view kSymbolTable{"\0.symtab\0", 9};  // among the names of sections

struct Machine {
    unsigned number;
    const char *name;
};
constexpr std::array kMachines{Machine{EM_X86_64, "x86_64"}, Machine{EM_386, "i386"},
                               Machine{EM_MIPS, "mips"},     Machine{EM_ARM, "arm"},
                               Machine{EM_AARCH64, "arm64"}, Machine{EM_RISCV, "riscv"}};

}  // namespace

std::string machine_of(const std::string &path) {
    std::array<char, EI_NIDENT + 4> head{};  // then the type and the machine, two bytes each
    if (!std::ifstream(path, std::ios::binary).read(head.data(), head.size()) ||
        !std::string_view(head.data(), head.size()).starts_with(ELFMAG)) {
        return {};
    }
    const bool bigEndian = head[EI_DATA] == ELFDATA2MSB;
    const auto byte = [&](size_t i) { return static_cast<unsigned>(static_cast<unsigned char>(head.at(i))); };
    const unsigned number = bigEndian ? byte(EI_NIDENT + 2) << 8U | byte(EI_NIDENT + 3)
                                      : byte(EI_NIDENT + 3) << 8U | byte(EI_NIDENT + 2);
    for (const Machine &machine : kMachines) {
        if (machine.number == number) {
            return std::string(machine.name) + (bigEndian || number != EM_MIPS ? "" : "el");
        }
    }
    return "machine " + std::to_string(number);
}

std::vector<FlashFile> flash_files(const std::vector<std::string> &paths, const std::string &machine) {
    std::vector<FlashFile> files;
    for (const std::string &path : paths) {
        if (machine_of(path) != machine) {
            continue;
        }
        std::ifstream file(path, std::ios::binary);
        const std::string content{std::istreambuf_iterator<char>(file), {}};
        files.push_back({path, content.size(), content.find(kSymbolTable) == std::string::npos});
    }
    return files;
}

}  // namespace emulator
