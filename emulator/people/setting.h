// What a command of extender that plays on a device is given: documents, journal, flash.
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
    std::string name;  ///< for those who join the device from other terminals; "": one is found
    DeviceOptions device;
};

/// Adds --journal and --name.
void add_journal_option(CLI::App &command, Setting &setting);

/// Adds --journal and the options of a device whose world is chosen.
void add_device_options(CLI::App &command, Setting &setting);

/// Enters the private device of a setting and has work done there. The documents and the journal are files of
/// the host: they are opened before.
/// @param work  is given the journal's file, or null, and the two documents; returns the exit status.
[[nodiscard]] int in_device(
    const Setting &setting,
    const std::function<int(std::FILE *, const json &scenario, const json &cloud)> &work);

/// In the private world, has work done on a fresh device that is at work itself: its neighbours, an image
/// that the cloud offers (where the document of the cloud names no firmware of its own) and the status file.
[[nodiscard]] int at_work(std::FILE *journal, const json &scenario, const json &cloud,
                          const std::function<int(Device &, ImageServer &)> &work);

/// Both of it. Other terminals can join the device.
[[nodiscard]] int with_device(const Setting &setting, const std::function<int(Control &)> &work);

}  // namespace emulator
