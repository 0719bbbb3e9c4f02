// growth FOLDER: how what a command costs grows with its work: getFwList with 1 to 100,000 entries, download
// with 1 to 64 MiB. Writes the drawings list.svg, download.svg and memory.svg into the folder, and prints a
// table. CLOUD_MSG_COMMAND names another program, as for extender.
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "cost.h"
#include "firmware.h"
#include "image_scenario.h"
#include "image_server.h"
#include "namespace.h"
#include "plot.h"

namespace {

using emulator::json;
using emulator::Series;

constexpr int kRounds = 5;

struct Growth {
    Series wall;
    Series processor;
    Series calls;
    Series resident;
    Series own;
};

json _list(int entries) {
    json list = json::array();
    for (int i = 0; i < entries; ++i) {
        list.push_back({{"fwType", 1},
                        {"fwVer", "1.0." + std::to_string(4 + i) + " Build 20210611 Rel.51820"},
                        {"fwReleaseDate", "2021-06-11"},
                        {"fwUrl", "http://localhost/re.bin"},
                        {"fwReleaseLog", "Security fixes."},
                        {"fwReleaseLogUrl", "http://localhost/re.html"},
                        {"fwLocation", 0}});
    }
    return list;
}

void _add(Growth &growth, double work, const emulator::CostOptions &options, emulator::Device &device,
          double restUs) {
    const json cost = emulator::measure_cost(device, options);
    if (cost.at("status") != 0 || cost.at("printed") != "0") {
        throw std::runtime_error(cost.dump(1) + device.journal().text());
    }
    const double wallMs = (cost["time"]["wall_us"]["median"].get<double>() - restUs) / 1e3;
    const double processorMs = cost["time"]["processor_us"]["median"].get<double>() / 1e3;
    const int calls = cost["system_calls"]["total"];
    const int resident = cost["memory"]["resident_kib"];
    const int own = cost["memory"]["private_kib"];
    growth.wall.points.emplace_back(work, wallMs);
    growth.processor.points.emplace_back(work, processorMs);
    growth.calls.points.emplace_back(work, calls);
    growth.resident.points.emplace_back(work, resident);
    growth.own.points.emplace_back(work, own);
    std::printf("| %s, %g %s | %.2f | %.2f | %d | %d | %d |\n", options.command.at(1).c_str(), work,
                options.command.at(1) == "download" ? "MiB" : "entries", wallMs, processorMs, calls, resident,
                own);
    std::fflush(stdout);
}

Growth _list_growth() {
    Growth growth{{"wall, ms", {}},
                  {"processor, ms", {}},
                  {"system calls", {}},
                  {"list: resident", {}},
                  {"list: of it no file's", {}}};
    for (const int entries : {1, 10, 100, 1000, 10000, 100000}) {
        emulator::Device device;
        emulator::put_status_file();
        device.cloud().change({{"firmware", _list(entries)}});
        _add(growth, entries, {{"cloud_msg", "getFwList"}, "", {}, {}, kRounds}, device, 0);
    }
    return growth;
}

Growth _download_growth() {
    Growth growth{{"wall without the rest of 1 s, ms", {}},
                  {"processor, ms", {}},
                  {"system calls", {}},
                  {"download: resident", {}},
                  {"download: of it no file's", {}}};
    for (const size_t mebibytes : {1, 4, 16, 64}) {
        emulator::Device device;
        const auto server = emulator::make_image_server(device.journal(), {{"rules", json::array()}});
        emulator::offer_firmware(device, *server, emulator::kNewVersion, mebibytes << 20U);
        emulator::put_status_file();
        emulator::CostOptions options{{"cloud_msg", "download"},
                                      "test -f /tmp/listed || cloud_msg getFwList >/tmp/listed; rm -f "
                                      "/tmp/httpUploadFile.bin",
                                      {},
                                      {},
                                      kRounds};
        _add(growth, static_cast<double>(mebibytes), options, device, 1e6);
    }
    return growth;
}

}  // namespace

int main(int argc, char **argv) try {
    if (argc != 2) {
        std::fputs("Usage: growth FOLDER\n", stderr);
        return 2;
    }
    emulator::split_off();
    // The folder is the host's, to be read only on the device: each drawing is opened before.
    const std::string folder = argv[1];
    std::ofstream list(folder + "/list.svg");
    std::ofstream download(folder + "/download.svg");
    std::ofstream memory(folder + "/memory.svg");
    emulator::enter_device();
    std::puts("| work | wall, ms | processor, ms | system calls | resident, KiB | of it no file's |");
    std::puts("|---|---:|---:|---:|---:|---:|");
    const Growth lists = _list_growth();
    const Growth downloads = _download_growth();
    list << emulator::plot("getFwList", "entries of the list", "cost",
                           {lists.wall, lists.processor, lists.calls});
    download << emulator::plot("download", "MiB of the image", "cost",
                               {downloads.wall, downloads.processor, downloads.calls});
    memory << emulator::plot("Memory at its peak", "entries of the list, MiB of the image", "KiB",
                             {lists.resident, lists.own, downloads.resident, downloads.own});
    if (!list.flush() || !download.flush() || !memory.flush()) {
        throw std::runtime_error(folder + " cannot be written");
    }
    return 0;
} catch (const std::exception &error) {
    std::fprintf(stderr, "growth: %s\n", error.what());
    return 1;
}
