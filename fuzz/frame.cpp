// A message on the broker's socket: eight bytes of header, then as many as those say.
#include <kxcc.h>
#include <sys/socket.h>
#include <unistd.h>

#include "cloud_ipc.h"
#include "cloud_owner.h"
#include "fuzz.h"
#include "unix_socket.h"
#include "wire.h"

FUZZ_TARGET(frame) {
    int ends[2];
    FUZZ_EXPECT(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
    const UniqueFd own(ends[0]);
    {
        const UniqueFd peer(ends[1]);
        emulator::write_all(peer.get(), input);
    }
    for (int32_t result = KXCC_OK; result == KXCC_OK;) {
        uint32_t type = 0;
        char *received = nullptr;
        result = cloud_ipc_recv(own.get(), &type, &received);
        const HeapText body(received);
        // What it should have seen, worked out by the other side's code.
        const bool whole = input.size() >= emulator::kHeaderSize;
        const bool good = whole && input.starts_with(emulator::kMagic);
        const size_t length = good ? emulator::decode_number(input.substr(4, 4)) : 0;
        const bool complete = good && input.size() - emulator::kHeaderSize >= length;
        FUZZ_EXPECT(result == (complete ? KXCC_OK : whole ? KXCC_ERROR_GENERAL : KXCC_ERROR_RECEIVE));
        if (complete && result == KXCC_OK) {
            FUZZ_EXPECT(type == emulator::decode_number(input.substr(2, 2)));
            input.remove_prefix(emulator::kHeaderSize);
            FUZZ_EXPECT((body == nullptr) == (length == 0));
            FUZZ_EXPECT(length == 0 ||
                        (input.starts_with({body.get(), length}) && body.get()[length] == '\0'));
            input.remove_prefix(length);
        }
    }
}
