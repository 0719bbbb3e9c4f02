// What people write for the emulated device: the rules of a scenario, those of its image server, the model of
// the cloud, and what then comes as requests. It is taken, or refused in words.
#include <stdexcept>

#include "broker.h"
#include "cloud.h"
#include "document.h"
#include "fuzz.h"
#include "image_server.h"

using namespace emulator;

namespace {

template <class Taking>
void _take(const Taking &taking) {
    try {
        taking();
    } catch (const std::invalid_argument &refusal) {
        FUZZ_EXPECT(*refusal.what() != '\0');
    }
}

}  // namespace

FUZZ_TARGET(scenario) {
    fuzz::calm();  // a host's program: where the system refuses, it may throw
    Journal journal;
    constexpr const char *kPath = "/tmp/scenario.json";
    fuzz::put_file(kPath, input);
    json document;
    _take([&] { document = read_document(kPath); });
    Cloud cloud;
    static_cast<void>(cloud.answer(input));
    _take([&] { cloud.change(document); });
    static_cast<void>(cloud.answer(R"({"method":"getIntlFwList","params":{}})"));
    _take([&] { Broker(journal, cloud, {{"listening", false}}).set_rules(document); });
    _take([&] { ImageServer(journal).set_rules(document); });
}
