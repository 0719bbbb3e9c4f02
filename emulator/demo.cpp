#include "demo.h"

#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include "demo_step.h"
#include "image_server.h"

namespace emulator {
namespace {

const std::vector<Step> &_account_steps() {
    static const std::string owner = "alice@example.com";
    static const std::string user = "bob@example.com";
    static const json dropbreload{{"kind", "script"}, {"name", "dropbreload"}};
    const auto message = [](const char *name) { return json{{"kind", "message"}, {"name", name}}; };
    const auto event = [](int number) { return json{{"kind", "event"}, {"event", number}}; };
    static const std::vector<Step> steps{
        {"A new device: nobody owns it.", {"cloud_msg", "getBindStatus"}, "0\n", {}, {}},
        {"The owner binds it. The web interface encrypts the password with the device's key.",
         {"cloud_msg", "bind", owner, "rsa:Secret-1"},
         "0\n",
         {message("accept"), message("logic"), message("submitNoAccount"), message("poll"), message("answer"),
          event(10), dropbreload},
         {}},
        {"", {"cloud_msg", "getBindStatus"}, "1\n", {}, {}},
        {"", {"cloud_store", "get", "account"}, "~" + owner, {}, {}},
        {"Somebody else tries, and the cloud refuses: the device has an owner.",
         {"cloud_msg", "bind", "carol@example.com", "rsa:Secret-3"},
         std::to_string(kCloudBoundToOther) + "\n",
         {message("submit")},
         {}},
        {"A second user logs in. Only an owner's login may change the stored account.",
         {"cloud_msg", "login", user, "rsa:Secret-2"},
         "0\n",
         {message("submit")},
         {}},
        {"", {"cloud_store", "get", "account"}, "~" + owner, {}, {}},
        {"", {"cat", "/tmp/cloud.login"}, "1\n", {}, {}},
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
         {message("submit")},
         {}},
        {"", {"cat", "/tmp/cloud_data_cache/getWeather"}, "~Exampleville", {}, {}},
        {"The owner removes the second user.", {"cloud_msg", "rmuser", owner, user}, "0\n", {}, {}},
        {"Is the cloud there? Any answer of it means yes.",
         {"cloud_msg", "online"},
         "0\n",
         {message("answer")},
         {}},
        {"Wireless clients are kicked off by the management daemon.",
         {"cloud_msg", "kickoff"},
         "0\n",
         {{{"kind", "datagram"}, {"length", 120}, {"faults", json::array()}},
          {{"kind", "datagram"}, {"length", 128}, {"faults", json::array()}},
          {{"kind", "datagram"}, {"length", 160}, {"faults", json::array()}}},
         {}},
        {"Factory reset with the cloud's link cut (takes five seconds): a report tells that an unbind is "
         "due.",
         {"cloud_msg", "factory"},
         "0\n",
         {message("submit")},
         [](Device &device) { device.broker().set_link(1); }},
        {"", {"cat", "/tmp/factory.part"}, "~\"need_unbind\":\t1", {}, {}},
        {"", {"cat", "/tmp/cloud.error"}, "-3002\n", {}, {}},
        {"The same with the link up: the device unbinds itself.",
         {"cloud_msg", "factory"},
         "0\n",
         {event(11), dropbreload},
         [](Device &device) { device.broker().set_link(2); }},
        {"", {"cloud_msg", "getBindStatus"}, "0\n", {}, {}},
        {"Bound once more,",
         {"cloud_msg", "bind", owner, "rsa:Secret-1"},
         "0\n",
         {event(10), dropbreload},
         {}},
        {"and unbound.", {"cloud_msg", "unbind"}, "0\n", {message("submit"), event(11), dropbreload}, {}},
        {"", {"cloud_msg", "getBindStatus"}, "0\n", {}, {}},
    };
    return steps;
}

}  // namespace

int play_demo(std::FILE *sink) {
    std::cout << "An emulated extender. $: typed on it. -->, <--: between cloud_msg and the broker,\n"
                 "a poll that is repeated shown once.\n";
    Device device({{"rules", {{{"on", "request"}, {"method", "bindDevice"}, {"do", {{"pending", 1}}}}}}}, {},
                  sink);
    ImageServer server(device.journal());
    std::vector<Step> steps = _account_steps();
    for (Step &step : firmware_steps(server)) {
        steps.push_back(std::move(step));
    }
    const auto failed =
        std::count_if(steps.begin(), steps.end(), [&](const Step &step) { return !play_step(device, step); });
    std::cout << "\n"
              << (failed == 0 ? "All as expected." : std::to_string(failed) + " steps were not as expected.")
              << '\n';
    return failed == 0 ? 0 : 1;
}

}  // namespace emulator
