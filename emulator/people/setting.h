// What a command of extender is given for its device: documents, journal, name, flash.
#pragma once

#include <cstdio>
#include <functional>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "control.h"
#include "namespace.h"

namespace emulator {

struct Setting {
    std::string scenario;
    std::string cloud;
    std::string journal;
    std::string name;  ///< for those who join the device from other terminals; "": the first free number
    DeviceOptions device;
};

/// Of an option whose value is a file to read, or a folder (DIR) to look into: says why it cannot be.
[[nodiscard]] CLI::Validator readable_file();
[[nodiscard]] CLI::Validator readable_folder();

/// Adds --journal.
void add_journal_option(CLI::App &command, Setting &setting);

/// Adds --name, for devices that can be joined.
void add_name_option(CLI::App &command, Setting &setting);

/// Adds --journal, --scenario, --cloud and --flash.
void add_device_options(CLI::App &command, Setting &setting);

/// Enters the private device of a setting and does work there. The documents and the journal are files of the
/// host: they are opened before.
/// @param work  is given the journal's file, or null, and the two documents; returns the exit status.
/// @throws std::system_error      a file cannot be opened.
/// @throws std::invalid_argument  a document is not JSON.
[[nodiscard]] int in_device(
    const Setting &setting,
    const std::function<int(std::FILE *, const json &scenario, const json &cloud)> &work);

/// In the private device, makes a Device with its neighbours, an image server, an image that the cloud offers
/// (where the document of the cloud names no firmware of its own) and the status file, and does work on it.
/// Where the scenario says "listening": false, a broker that the work starts is recorded (foreign_broker.h).
/// @throws  what Device and make_image_server() throw.
[[nodiscard]] int at_work(std::FILE *journal, const json &scenario, const json &cloud,
                          const std::function<int(Device &, ImageServer &)> &work);

/// in_device() and at_work(), with a Control and its socket, so that other terminals can join the device.
/// @throws  what those throw; std::runtime_error, the name is taken.
[[nodiscard]] int with_device(const Setting &setting, const std::function<int(Control &)> &work);

}  // namespace emulator
