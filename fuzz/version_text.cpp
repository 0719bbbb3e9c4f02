// The version texts that the cloud offers and that the device has: two, with a NUL between.
#include "cloud_fwVersion.h"
#include "fuzz.h"

FUZZ_TARGET(version_text) {
    const unsigned char room = fuzz::cut_byte(input);
    const std::string one = fuzz::cut(input);
    const std::string other = fuzz::cut(input);
    FUZZ_EXPECT(fwVerCmp(one.c_str(), one.c_str()) == 0);
    FUZZ_EXPECT(fwVerCmp(one.c_str(), other.c_str()) + fwVerCmp(other.c_str(), one.c_str()) <= 1);
    std::string number(room, '\0');
    if (getDevFwVer(one.c_str(), number.data(), room) == 1) {
        const std::string_view text = number.c_str();
        FUZZ_EXPECT(text.size() < room && one.starts_with(text) && one[text.size()] == ' ');
    }
}
