// "/tmp/passwd": the user to remove, a NUL, the file.
#include <algorithm>
#include <cctype>

#include "cloud_accountPasswd.h"
#include "cloud_path.h"
#include "fuzz.h"

FUZZ_TARGET(passwd) {
    std::string name = fuzz::cut(input);
    fuzz::put_file(kPasswdPath, input);
    const std::string before(input);
    cloud_account::_remove_passwd_user(name.c_str());
    name.resize(std::min<size_t>(name.size(), 128));
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char one) { return tolower(one); });
    std::string kept;
    while (!input.empty()) {
        const std::string_view line = input.substr(0, input.find('\n')).size() == input.size()
                                          ? input
                                          : input.substr(0, input.find('\n') + 1);
        if (name.empty() || line.find(':') != name.size() || !line.starts_with(name)) {
            kept += line;
        }
        input.remove_prefix(line.size());
    }
    const std::string after = fuzz::file(kPasswdPath);
    FUZZ_HOLDS(after == kept || (fuzz::failed() && after == before));
}
