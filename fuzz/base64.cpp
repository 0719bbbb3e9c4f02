// Base64 of the command line. First byte: the room that it is decoded into.
#include "base64.h"

#include <memory>

#include "cloud_accountRequest.h"
#include "cloud_owner.h"
#include "fuzz.h"

FUZZ_TARGET(base64) {
    const int32_t room = fuzz::cut_byte(input) + 1;
    const std::string text(input);
    const auto out = std::make_unique<char[]>(static_cast<size_t>(room));
    const int32_t count = b64_decode(out.get(), room, input.data(), static_cast<int32_t>(input.size()));
    FUZZ_EXPECT(count >= -1 && count <= room);
    if (count >= 0 && text.find('\0') == std::string::npos) {
        FUZZ_EXPECT(b64_decodedSize(text.c_str()) == count);
    }
    // Any bytes are the same after encoding and decoding.
    const auto size = static_cast<int32_t>(input.size());
    std::string encoded(static_cast<size_t>(size + 2) / 3 * 4 + 1, '\0');
    FUZZ_EXPECT(b64_encode(encoded.data(), static_cast<int32_t>(encoded.size()), input.data(), size) ==
                static_cast<int32_t>(encoded.size()) - 1);
    std::string back(input.size() + 1, '\0');
    FUZZ_EXPECT(b64_decode(back.data(), size + 1, encoded.c_str(), -1) == size && back.starts_with(input));
    const SecretText request = cloud_account::_format_passthrough_msg_req("m", text.c_str());
    fuzz::calm();
    FUZZ_HOLDS(request == nullptr || JsonTree(cJSON_Parse(request.get())) != nullptr);
}
