// What the tests of the whole program share: its printed number, its requests, the device's files.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "device.h"

namespace program {

using emulator::Device;
using emulator::has;
using emulator::json;
using emulator::Run;

inline const std::string kOwner = "alice@example.com";
inline const std::string kOwnerPassword = "Secret-1";

/// Names a case after its row.
template <class Row>
std::string row_name(const testing::TestParamInfo<Row> &row) {
    return row.param.name;
}

/// What a run wrote on standard error, less valgrind's list of descriptors that were open before it.
inline std::string complaints(const std::string &err) {
    std::istringstream lines(err);
    std::string kept;
    for (std::string line, opened; std::getline(lines, line);) {
        const size_t mark = line.starts_with("==") ? line.find("== ", 2) : std::string::npos;
        const std::string report = mark == std::string::npos ? std::string() : line.substr(mark + 3);
        const bool inherited = report.find("<inherited from parent>") != std::string::npos;
        kept += inherited ? std::string() : opened;
        opened = report.starts_with("Open ") ? line + "\n" : "";
        const bool expected = inherited || !opened.empty() || report.starts_with("FILE DESCRIPTORS") ||
                              (mark != std::string::npos && report.empty());
        kept += expected ? std::string() : line + "\n";
    }
    return kept;
}

/// Runs one command, which must end by itself with status 0. @return what it printed.
inline std::string printed(Device &device, std::vector<std::string> arguments,
                           const emulator::RunOptions &options = {}) {
    const Run run = device.cloud_msg(std::move(arguments), options);
    EXPECT_EQ(run.signal, 0) << run.err;
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(complaints(run.err), "");
    return run.out;
}

/// The content of a file of the device; "absent" when there is none.
inline std::string file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return "absent";
    }
    return {std::istreambuf_iterator<char>(in), {}};
}

inline void write_file(const std::string &path, std::string_view text) {
    std::ofstream(path, std::ios::binary) << text;
}

/// Messages that the program sent, as "type body", without the polls.
inline std::vector<std::string> sent(Device &device) {
    std::vector<std::string> messages;
    for (const json &record : device.journal().of_kind("message")) {
        if (record.at("from") == "client" && record.at("type") != emulator::kPoll) {
            messages.push_back(record.at("type").dump() + " " + record.at("body").get<std::string>());
        }
    }
    return messages;
}

/// Cloud requests that the program submitted, as texts.
inline std::vector<std::string> requests(Device &device) {
    std::vector<std::string> texts;
    for (const json &record : device.journal().of_kind("message")) {
        const int type = record.at("type");
        if (record.at("from") == "client" &&
            (type == emulator::kSubmit || type == emulator::kSubmitNoAccount)) {
            texts.push_back(json::parse(record.at("body").get<std::string>()).at("request"));
        }
    }
    return texts;
}

/// The console's lines, joined; complete up to the end of the last run.
inline std::string console(Device &device) {
    std::string text;
    for (const json &record : device.journal().of_kind("console")) {
        text += record.at("text").get<std::string>() + "\n";
    }
    return text;
}

/// Waits for a console line that holds a text.
inline void expect_console(Device &device, const std::string &part) {
    device.journal().wait_for([&](const json &record) {
        return record.at("kind") == "console" &&
               record.at("text").get<std::string>().find(part) != std::string::npos;
    });
}

/// Names of the scripts that ran, with their arguments.
inline std::vector<std::string> scripts(Device &device) {
    std::vector<std::string> lines;
    for (const json &record : device.journal().of_kind("script")) {
        std::string line = record.at("name");
        for (const json &argument : record.at("arguments")) {
            line += " [" + argument.get<std::string>() + "]";
        }
        lines.push_back(line);
    }
    return lines;
}

inline void wait_for_script(Device &device, const std::string &name) {
    device.journal().wait_for(has({{"kind", "script"}, {"name", name}}));
}

/// A scenario in which the cloud's answer to every request is the given text.
inline json answering(const std::string &answer) {
    return {{"rules", {{{"on", "request"}, {"do", {{"answer", answer}}}}}}};
}

}  // namespace program
