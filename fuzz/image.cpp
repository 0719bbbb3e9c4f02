// A firmware image, as the reference platform checks it.
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "cloud_owner.h"
#include "fuzz.h"
#include "fw_image.h"

FUZZ_TARGET(image) {
    const UniqueFd source(memfd_create("image", MFD_CLOEXEC));
    const UniqueFd copy(memfd_create("copy", MFD_CLOEXEC));
    FUZZ_EXPECT(write(source.get(), input.data(), input.size()) == static_cast<ssize_t>(input.size()));
    FUZZ_EXPECT(lseek(source.get(), 0, SEEK_SET) == 0);
    ImageHeader header{};
    const ImageError error = image_check(source.get(), copy.get(), &header);
    FUZZ_EXPECT(*image_errorText(error) != '\0');
    if (error == kImageGood) {
        FUZZ_EXPECT(strnlen(header.version, sizeof header.version) < sizeof header.version);
        FUZZ_EXPECT(image_isVersionText(header.version));
        FUZZ_EXPECT(sizeof header + image_payloadLength(header) == input.size());
        FUZZ_EXPECT(lseek(copy.get(), 0, SEEK_END) == static_cast<off_t>(input.size()));
    }
}
