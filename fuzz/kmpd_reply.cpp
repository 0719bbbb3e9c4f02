// What the management daemon answers to a kick-off.
#include <sys/stat.h>

#include "cloud_account.h"
#include "cloud_path.h"
#include "fuzz.h"

FUZZ_TARGET(kmpd_reply) {
    fuzz::set_daemon(std::string(input));
    FUZZ_EXPECT(cloud_msg_kickoff() == 0);
    struct stat status {};
    FUZZ_EXPECT(lstat(kOwnSocketPath, &status) != 0);
}
