#include "cost.h"

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include "flash.h"
#include "namespace.h"
#include "race.h"
#include "trace.h"
#include "wire.h"

namespace emulator {
namespace {

constexpr const char *kEmulatorsTrace =
    "QEMU_STRACE";  // has the user-mode emulator name each call of its program

json _document(const Spread &spread) {
    return {{"median", spread.median}, {"low", spread.low}, {"high", spread.high}};
}

void _prepare(const std::string &before) {
    if (before.empty()) {
        return;
    }
    const Run run = Process({"sh", "-c", before}).wait();
    if (run.status != 0) {
        throw std::runtime_error("\"" + before + "\" ended with status " + std::to_string(run.status) + ". " +
                                 run.out + run.err);
    }
}

json _flash(const Trace &trace, const CostOptions &options, const std::string &machine) {
    json files = json::object();
    json unstripped = json::array();
    uint64_t total = 0;
    std::vector<std::string> paths = trace.mapped;
    paths.insert(paths.end(), options.other_files.begin(), options.other_files.end());
    for (const FlashFile &file : flash_files(paths, machine)) {
        const std::string name = std::filesystem::path(file.path).filename();
        files[name] = file.bytes;
        total += file.bytes;
        if (!file.stripped) {
            unstripped.push_back(name);
        }
    }
    json flash{{"total", total}, {"files", files}};
    if (!unstripped.empty()) {
        flash["unstripped"] = unstripped;
    }
    return flash;
}

// The lines "PID NAME(...) = RESULT" of the emulator's own trace.
std::map<std::string, int> _emulated_calls(const std::string &lines) {
    std::map<std::string, int> calls;
    std::istringstream input(lines);
    std::string first;  // process: what it starts does not count
    for (std::string line; std::getline(input, line);) {
        const size_t blank = line.find(' ');
        const size_t bracket = line.find('(');
        if (blank == std::string::npos || bracket == std::string::npos || bracket < blank ||
            line.find_first_not_of("0123456789") != blank) {
            continue;
        }
        first = first.empty() ? line.substr(0, blank) : first;
        if (line.compare(0, blank, first) == 0) {
            ++calls[line.substr(blank + 1, bracket - blank - 1)];
        }
    }
    return calls;
}

json _calls(const std::map<std::string, int> &calls) {
    int total = 0;
    for (const auto &[name, count] : calls) {
        total += count;
    }
    return {{"total", total}, {"by_name", calls}};
}

// What was said between the program and the broker, as the journal has it.
json _wire(const std::vector<json> &records) {
    json byName = json::object();
    size_t messages = 0;
    size_t bytes = 0;
    for (const json &record : records) {
        if (record.at("kind") != "message") {
            continue;
        }
        const size_t size = kHeaderSize + record.at("body").get_ref<const std::string &>().size();
        const std::string name = (record.at("from") == "client" ? "to broker: " : "from broker: ") +
                                 record.at("name").get<std::string>();
        const json last = byName.value(name, json{{"messages", 0}, {"bytes", 0}});
        byName[name] = {{"messages", last.at("messages").get<size_t>() + 1},
                        {"bytes", last.at("bytes").get<size_t>() + size}};
        ++messages;
        bytes += size;
    }
    return {{"messages", messages}, {"bytes", bytes}, {"by_name", byName}};
}

json _written(const std::map<std::string, uint64_t> &files) {
    uint64_t total = 0;
    for (const auto &[path, bytes] : files) {
        total += bytes;
    }
    return {{"total", total}, {"files", files}};
}

json _ratios(const std::vector<Times> &times, const std::vector<Times> &to) {
    return {{"wall", _document(ratio(times, to, &Times::wall_us))},
            {"processor", _document(ratio(times, to, &Times::processor_us))}};
}

json _time(Device &device, const CostOptions &options, const std::vector<std::string> &command) {
    std::vector<std::vector<std::string>> commands{{"/bin/true"}, command};
    if (!options.against.empty()) {
        commands.push_back(options.against);
    }
    const auto times = race(commands, options.rounds, [&] {
        _prepare(options.before);
        device.journal().clear();
    });
    const std::vector<Times> &own = times[1];
    std::vector<double> wall;
    std::vector<double> processor;
    for (const Times &one : own) {
        wall.push_back(one.wall_us);
        processor.push_back(one.processor_us);
    }
    json time{{"rounds", options.rounds},
              {"wall_us", _document(spread(wall))},
              {"processor_us", _document(spread(processor))},
              {"true", _ratios(own, times[0])}};
    if (!options.against.empty()) {
        time["against"] = {{"command", options.against}};
        time["against"].update(_ratios(own, times[2]));
    }
    return time;
}

}  // namespace

json measure_cost(Device &device, const CostOptions &options) {
    std::vector<std::string> command = options.command;
    std::string program = command.at(0);
    if (program == "cloud_msg") {
        const std::vector<std::string> words = cloud_msg_command();
        program = words.back();
        command.erase(command.begin());
        command.insert(command.begin(), words.begin(), words.end());
    }
    const std::string ownMachine = machine_of("/proc/self/exe");
    std::string machine = machine_of(program);
    const bool emulated = !machine.empty() && machine != ownMachine;
    machine = machine.empty() ? ownMachine : machine;  // a script, or a program from PATH

    _prepare(options.before);
    device.settle();
    device.journal().clear();
    if (emulated) {
        setenv(kEmulatorsTrace, "1", 1);
    }
    Trace trace = emulator::trace(command, {"/tmp", kFlashPath});
    unsetenv(kEmulatorsTrace);
    device.settle();
    trace.run.out.erase(trace.run.out.find_last_not_of('\n') + 1);

    json cost{{"command", options.command},
              {"machine", machine},
              {"printed", trace.run.out},
              {"status", trace.run.status},
              {"flash", _flash(trace, options, machine)}};
    if (!emulated) {
        cost["memory"] = {{"resident_kib", trace.resident_kib}, {"private_kib", trace.private_kib}};
    }
    cost["system_calls"] = _calls(emulated ? _emulated_calls(trace.run.err) : trace.calls);
    cost["wire"] = _wire(device.journal().all());
    cost["written"] = _written(trace.written);
    if (options.rounds > 0) {
        cost["time"] = _time(device, options, command);
    }
    return cost;
}

}  // namespace emulator
