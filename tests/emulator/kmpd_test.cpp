// The management daemon, and its check of datagrams.
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <string>
#include <vector>

#include "device.h"
#include "emulator_support.h"

namespace emulator {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using namespace std::string_literals;

// The third datagram of a sequence as a big-endian or little-endian program would send it.
std::string _datagram(bool bigEndian) {
    std::string bytes(10360, '\0');
    bytes.replace(8, 8,
                  bigEndian ? "\x00\x00\x00\xA0\x00\x00\x00\x01"s : "\xA0\x00\x00\x00\x01\x00\x00\x00"s);
    bytes.replace(16, 32, "signalbooster425425425425425425m");
    bytes.replace(120, 40, "AQACAAEABQAACAAAAAAAAAKejGoBAQYAAAAAAA==");
    return bytes;
}

TEST(Kmpd, FindsAFaultAtEachOffset) {
    for (const bool bigEndian : {false, true}) {
        const std::string right = _datagram(bigEndian);
        EXPECT_THAT(check_datagram(right, bigEndian), IsEmpty());
        EXPECT_THAT(check_datagram(right, !bigEndian), testing::SizeIs(2));
        EXPECT_THAT(check_datagram(right.substr(1), bigEndian), ElementsAre("size 10359"));
        std::string wrong = right;
        for (size_t offset = 0; offset < right.size(); offset += offset < 200 ? 1 : 7) {
            wrong[offset] = static_cast<char>(right[offset] ^ 'x');
            if (offset < 120 || offset >= 160) {  // the payload's letters themselves are free
                EXPECT_THAT(check_datagram(wrong, bigEndian), testing::Not(IsEmpty())) << offset;
            }
            wrong[offset] = right[offset];
        }
    }
}

TEST(Kmpd, RecordsAndAnswersAsTold) {
    for (const auto &[mode, size] : {std::pair{"answer", 10360}, {"oversize", 20720}}) {
        Device device(json{{"kmpd", mode}});
        const Descriptor fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_un own{AF_UNIX, "/tmp/own"};
        sockaddr_un peer{AF_UNIX, "/tmp/cloud_kmpd_unix"};
        ASSERT_EQ(bind(fd.get(), reinterpret_cast<const sockaddr *>(&own), sizeof own), 0);
        const std::string bytes = _datagram(false);
        sendto(fd.get(), bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr *>(&peer),
               sizeof peer);
        std::vector<char> answer(100000);
        EXPECT_EQ(recv(fd.get(), answer.data(), answer.size(), 0), size);
        EXPECT_THAT(device.journal().of_kind("datagram"),
                    ElementsAre(holds({{"length", 160}, {"message", 1}, {"faults", json::array()}})));
    }
    EXPECT_FALSE(Client(SOCK_DGRAM, (Device(json{{"kmpd", "absent"}}), "/tmp/cloud_kmpd_unix")).connected());
}

}  // namespace
}  // namespace emulator
