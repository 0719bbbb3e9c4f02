// The management daemon of the emulated device: a datagram socket that records each datagram
// and checks it at every offset.
#pragma once

#include <atomic>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "descriptor.h"
#include "journal.h"

namespace emulator {

inline constexpr const char *kKmpdPath = "/tmp/cloud_kmpd_unix";
inline constexpr size_t kDatagramSize = 10360;

/// Everything that is wrong with a datagram, in words; empty when it is right.
/// @param bigEndian  byte order of the program that sent it.
[[nodiscard]] std::vector<std::string> check_datagram(std::string_view datagram, bool bigEndian);

/// How it answers a datagram: with one of kDatagramSize bytes, not at all, with one of twice as many.
enum class KmpdReply { kAnswer, kSilent, kOversize };

class Kmpd {
public:
    /// Serves at once, from a thread of its own. The journal must outlive it.
    /// @param bigEndian  byte order of the programs that send to it.
    /// @throws std::system_error  the socket cannot be had.
    Kmpd(Journal &journal, KmpdReply reply, bool bigEndian, std::string path = kKmpdPath);
    ~Kmpd();
    Kmpd(const Kmpd &) = delete;
    Kmpd &operator=(const Kmpd &) = delete;

private:
    void _serve();

    Journal &journal_;
    const KmpdReply reply_;
    const bool big_endian_;
    const std::string path_;
    Descriptor fd_;
    std::atomic<bool> stopping_ = false;
    std::thread thread_;
};

}  // namespace emulator
