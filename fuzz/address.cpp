// The address of an image and what comes from there: the address, a NUL, the length told in decimals, a NUL,
// the pieces in which the content comes (world.cpp), a NUL, the content.
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "cloud_httpClient.h"
#include "cloud_path.h"
#include "fuzz.h"

FUZZ_TARGET(address) {
    const std::string url = fuzz::cut(input);
    const double length = strtod(fuzz::cut(input).c_str(), nullptr);
    const std::string pieces = fuzz::cut(input);
    const std::string content(input);
    unlink(kPartialImagePath);
    fuzz::set_image(length, content, pieces);
    std::string path(kLocalPathRoom, '\xff');
    const int result = cloud_httpClientDownloadFile(url.c_str(), path.data(), kFirmwareMode);
    // However often the transfer broke off, the partial image is the beginning of the content.
    const std::string partial = fuzz::file(kPartialImagePath);
    FUZZ_HOLDS(content.starts_with(partial));
    if (result == 0) {
        FUZZ_EXPECT(fuzz::file(kImageNamePath) ==
                    "/tmp/" + url.substr(url.rfind('/') + 1).substr(0, kLocalPathRoom - 6));
        FUZZ_EXPECT(g_httpClientFileInfo.localFileLength == static_cast<double>(partial.size()));
        FUZZ_EXPECT(std::string_view(path.c_str()) == kPartialImagePath);
    }
}
