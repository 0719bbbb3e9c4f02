// extender web: the device on a page, until it is ended by Ctrl-C.
#include <semaphore.h>

#include <cerrno>
#include <csignal>
#include <iostream>
#include <memory>

#include "commands.h"
#include "setting.h"
#include "web_server.h"

namespace {

constexpr int kHighestPort = 65535;

sem_t g_end;  // what a signal's handler may post, whichever thread runs it

int _serve(emulator::Control &control, int port) {
    sem_init(&g_end, 0, 0);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        std::signal(signal, [](int) { sem_post(&g_end); });
    }
    emulator::Cockpit cockpit(control);
    const emulator::WebServer server(cockpit, port);
    std::cout << server.address() << std::endl;
    while (sem_wait(&g_end) != 0 && errno == EINTR) {
    }
    return 0;
}

}  // namespace

void emulator::add_web(CLI::App &app, int &status) {
    struct Web {
        Setting setting;
        int port = 0;
    };
    const auto web = std::make_shared<Web>();
    CLI::App *command =
        app.add_subcommand("web", "The device on a page; prints its address. Ctrl-C ends it.");
    add_device_options(*command, web->setting);
    add_name_option(*command, web->setting);
    command->add_option("--port", web->port, "Port on loopback (default: a free one)")
        ->check(CLI::Range(0, kHighestPort));
    command->callback([web, &status] {
        status = with_device(web->setting, [&web](Control &control) { return _serve(control, web->port); });
    });
}
