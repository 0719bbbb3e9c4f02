#include <sys/types.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "demo_step.h"
#include "firmware.h"
#include "progress.h"

namespace emulator {
namespace {

constexpr size_t kImageBytes = 3000000;
constexpr std::uintmax_t kCutAt = kImageBytes / 2;
constexpr const char *kImage = "/tmp/httpUploadFile.bin";
constexpr const char *kVerified = "Verify image ok, now will reboot...";

using Words = std::vector<std::string>;

const Words kCheck{"cloud_msg", "check"};
const Words kDownload{"cloud_msg", "download"};
const Words kUpdate{"cloud_msg", "update"};
const Words kStatus{"cat", kStatusPath};
const Words kVersion{"cat", "/tmp/softinfo"};

json _http(const char *method, int code) {
    return {{"kind", "http"}, {"method", method}, {"status", code}};
}

json _console(const char *text) {
    return {{"kind", "console"}, {"text", text}};
}

Run _with_progress(Device &device, const Words &argv) {
    const ProgressBar bar(std::cout);
    return device.run(argv);
}

// Half of the image arrives, then the process is killed.
Run _cut_off(Device &device, const Words &argv) {
    Process download = device.start(argv);
    {
        const ProgressBar bar(std::cout);
        std::error_code absent;
        while (download.running() && (std::filesystem::file_size(kPartialImage, absent) < kCutAt || absent)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        download.kill(SIGKILL);
    }
    Run run = download.wait();
    run.status = run.signal == SIGKILL ? 0 : 1;  // as meant
    std::cout << "   (killed)\n";
    return run;
}

Run _until_restart(Device &device, const Words &argv) {
    Process update = device.start(argv);
    {
        const ProgressBar bar(std::cout);
        // The restart kills the program: its last console line is waited for.
        static_cast<void>(device.journal().wait_for(has(_console(kVerified))));
        device.await_restart();
    }
    put_status_file();  // as the web interface does when it starts
    Run run = update.wait();
    run.status = run.signal == SIGKILL ? 0 : 1;  // as all processes of the device
    std::cout << "   (the device has restarted)\n";
    return run;
}

void _damage_image() {
    std::fstream image(kImage, std::ios::in | std::ios::out | std::ios::binary);
    image.seekg(kImageBytes / 3);
    const int byte = image.get();
    image.seekp(kImageBytes / 3).put(static_cast<char>(byte ^ 1));
}

}  // namespace

std::vector<Step> download_steps(ImageServer &server) {
    return {
        {"The maker publishes new firmware. The device runs an older one.",
         kVersion,
         kSoftwareVersion,
         {},
         [&server](Device &device) {
             put_status_file();
             offer_firmware(device, server, kNewVersion, kImageBytes);
             server.set_rules(json::parse(R"([{"method":"GET","do":{"trickle":{"bytes":20000,"ms":10}}}])"));
         },
         {}},
        {"It asks the cloud.", kCheck, "0\n", {_console("cloud_setNewFwInfo done.")}, {}, {}},
        {"", kStatus, "~\"fw_status\":\t5", {}, {}, {}},
        {"The download is cut off halfway.", kDownload, "", {}, {}, _cut_off},
        {"The killed run has left its lock, which keeps others out until the back end removes it.",
         kDownload,
         "0\n",
         {_console("download image from cloud in progress")},
         {},
         {}},
        {"", {"rm", "/tmp/cloud_dl_img.lock"}, "", {}, {}, {}},
        {"The next run goes on where the first one ended.",
         kDownload,
         "0\n",
         {_http("HEAD", 200), _http("GET", 206)},
         {},
         _with_progress},
    };
}

std::vector<Step> update_steps() {
    return {
        {"One bit of the image flips. The platform refuses it (five seconds pass first).",
         kUpdate,
         "0\n",
         {_console("Verify image failed!")},
         [](Device &) { _damage_image(); },
         _with_progress},
        {"", kStatus, "~\"fw_status\":\t20001", {}, {}, {}},
        {"", kVersion, kSoftwareVersion, {}, {}, {}},
        {"The damaged image goes, and is fetched anew.", {"rm", kImage}, "", {}, {}, {}},
        {"", kDownload, "0\n", {_http("GET", 200)}, {}, _with_progress},
        {"Now it is good: verified, installed, and the device restarts.",
         kUpdate,
         "",
         {_console(kVerified), {{"kind", "restart"}}},
         {},
         _until_restart},
        {"", kVersion, std::string(kNewVersion) + "\n", {}, {}, {}},
        {"Nothing newer is to be had.",
         kCheck,
         "0\n",
         {_console("FwList is empty! Current firmware is up to date!")},
         {},
         {}},
        {"", kStatus, "~\"fw_status\":\t5", {}, {}, {}},
    };
}

}  // namespace emulator
