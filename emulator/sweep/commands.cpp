#include "commands.h"

#include <iterator>
#include <sstream>

namespace emulator::sweep {
namespace {

constexpr const char *kBind = "cloud_msg bind alice@example.com rsa:Secret-1";
constexpr const char *kCheck = "cloud_msg check";
constexpr const char *kDownload = "cloud_msg download";

}  // namespace

std::vector<std::string> words_of(const std::string &text) {
    std::istringstream words(text);
    return {std::istream_iterator<std::string>(words), {}};
}

std::string Command::name() const {
    return words.size() > 1 && words[0] == "cloud_msg" ? words[1] : words.at(0);
}

std::vector<Command> all_commands() {
    const auto command = [](const char *words, std::vector<std::string> before = {}) {
        return Command{words_of(words), std::move(before)};
    };
    return {
        command(kBind),
        command("cloud_msg unbind", {kBind}),
        command("cloud_msg login alice@example.com rsa:Secret-1", {kBind}),
        command("cloud_msg alias QXR0aWM=", {kBind}),
        command("cloud_msg rmuser alice@example.com bob@example.com", {kBind}),
        command("cloud_msg getDevToken", {kBind}),
        command("cloud_msg passthrough getWeather e30=", {kBind}),
        command("cloud_msg tmp_bind YWxpY2VAZXhhbXBsZS5jb20= U2VjcmV0LTE="),
        command("cloud_msg tmp_unbind", {kBind}),
        command("cloud_msg factory", {kBind}),
        command("cloud_msg kickoff"),
        command("cloud_msg online"),
        command("cloud_msg getLogicStatus"),
        command("cloud_msg setLogicStatus", {kBind}),
        command("cloud_msg getBindStatus"),
        command("cloud_msg getFwList"),
        command(kCheck),
        command(kDownload, {kCheck}),
        command("cloud_msg update", {kCheck, kDownload}),
    };
}

}  // namespace emulator::sweep
