// extender demo: commands on the device from its binding to a firmware update, step by step, for people to
// watch.
#include <algorithm>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "control_socket.h"
#include "demo_step.h"
#include "image_server.h"
#include "setting.h"

namespace emulator {
namespace {

using Steps = std::vector<Step>;

const std::string kOwner = "alice@example.com";
const std::string kUser = "bob@example.com";

json _message(const char *name) {
    return {{"kind", "message"}, {"name", name}};
}

json _event(int number) {
    return {{"kind", "event"}, {"event", number}};
}

json _dropbreload() {
    return {{"kind", "script"}, {"name", "dropbreload"}};
}

Steps _binding_steps() {
    return {
        {"A new device: nobody owns it.", {"cloud_msg", "getBindStatus"}, "0\n", {}, {}},
        {"The owner binds it. The web interface encrypts the password with the device's key.",
         {"cloud_msg", "bind", kOwner, "rsa:Secret-1"},
         "0\n",
         {_message("accept"), _message("logic"), _message("submitNoAccount"), _message("poll"),
          _message("answer"), _event(10), _dropbreload()},
         {}},
        {"", {"cloud_msg", "getBindStatus"}, "1\n", {}, {}},
        {"", {"cloud_store", "get", "account"}, "~" + kOwner, {}, {}},
        {"Somebody else tries, and the cloud refuses: the device has an owner.",
         {"cloud_msg", "bind", "carol@example.com", "rsa:Secret-3"},
         std::to_string(kCloudBoundToOther) + "\n",
         {_message("submit")},
         {}},
        {"A second user logs in. Only an owner's login may change the stored account.",
         {"cloud_msg", "login", kUser, "rsa:Secret-2"},
         "0\n",
         {_message("submit")},
         {}},
        {"", {"cloud_store", "get", "account"}, "~" + kOwner, {}, {}},
        {"", {"cat", "/tmp/cloud.login"}, "1\n", {}, {}},
    };
}

Steps _service_steps() {
    return {
        {"The device gets a name in the cloud.", {"cloud_msg", "alias", "b64:Upstairs"}, "0\n", {}, {}},
        {"A token, with its address. A script will remove it when it expires.",
         {"cloud_msg", "getDevToken"},
         "0\n",
         {{{"kind", "script"}, {"name", "deleteToken.sh"}, {"arguments", {"7200"}}}},
         {}},
        {"", {"cat", "/tmp/cloud.token"}, "7f3a90c2d6e84b15\nhttps://eweb.example.com/device\n", {}, {}},
        {"The management daemon passes a request through; the answer is cached.",
         {"cloud_msg", "passthrough", "getWeather", R"(b64:{"unit":"celsius"})"},
         "0\n",
         {_message("submit")},
         {}},
        {"", {"cat", "/tmp/cloud_data_cache/getWeather"}, "~Exampleville", {}, {}},
        {"The owner removes the second user.", {"cloud_msg", "rmuser", kOwner, kUser}, "0\n", {}, {}},
        {"Is the cloud there? Any answer of it means yes.",
         {"cloud_msg", "online"},
         "0\n",
         {_message("answer")},
         {}},
        {"Wireless clients are kicked off by the management daemon.",
         {"cloud_msg", "kickoff"},
         "0\n",
         {{{"kind", "datagram"}, {"length", 120}, {"faults", json::array()}},
          {{"kind", "datagram"}, {"length", 128}, {"faults", json::array()}},
          {{"kind", "datagram"}, {"length", 160}, {"faults", json::array()}}},
         {}},
    };
}

Steps _unbinding_steps() {
    return {
        {"Factory reset with the cloud's link cut (takes five seconds): a report tells that an unbind is "
         "due.",
         {"cloud_msg", "factory"},
         "0\n",
         {_message("submit")},
         [](Device &device) { device.broker().set_link(1); }},
        {"", {"cat", "/tmp/factory.part"}, "~\"need_unbind\":\t1", {}, {}},
        {"", {"cat", "/tmp/cloud.error"}, "-3002\n", {}, {}},
        {"The same with the link up: the device unbinds itself.",
         {"cloud_msg", "factory"},
         "0\n",
         {_event(11), _dropbreload()},
         [](Device &device) { device.broker().set_link(2); }},
        {"", {"cloud_msg", "getBindStatus"}, "0\n", {}, {}},
        {"Bound once more,",
         {"cloud_msg", "bind", kOwner, "rsa:Secret-1"},
         "0\n",
         {_event(10), _dropbreload()},
         {}},
        {"and unbound.",
         {"cloud_msg", "unbind"},
         "0\n",
         {_message("submit"), _event(11), _dropbreload()},
         {}},
        {"", {"cloud_msg", "getBindStatus"}, "0\n", {}, {}},
    };
}

// @return 0; 1 when a step did not end as expected (which is shown).
int _play(std::FILE *sink, const std::string &name) {
    std::cout << in_lines(
        "An emulated extender. $: typed on it. Below it, who said what to whom; what repeats is shown once.",
        demo_style().columns);
    Device device({{"rules", {{{"on", "request"}, {"method", "bindDevice"}, {"do", {{"pending", 1}}}}}}}, {},
                  sink);
    ImageServer server(device.journal());
    Control control(device, server);
    const ControlSocket socket(control, name);
    std::ptrdiff_t failed = 0;
    for (const Steps &chapter :
         {_binding_steps(), _service_steps(), _unbinding_steps(), download_steps(server), update_steps()}) {
        failed += std::count_if(chapter.begin(), chapter.end(),
                                [&](const Step &step) { return !play_step(device, step); });
    }
    std::cout << "\n"
              << (failed == 0 ? "All as expected." : std::to_string(failed) + " steps were not as expected.")
              << '\n';
    return failed == 0 ? 0 : 1;
}

}  // namespace

void add_demo(CLI::App &app, int &status) {
    const auto setting = std::make_shared<Setting>();
    CLI::App *command = app.add_subcommand("demo", "Plays the life of a device, step by step.");
    add_journal_option(*command, *setting);
    add_name_option(*command, *setting);
    command->callback([setting, &status] {
        status = in_device(*setting, [&](std::FILE *sink, const json &, const json &) {
            return _play(sink, setting->name);
        });
    });
}

}  // namespace emulator
