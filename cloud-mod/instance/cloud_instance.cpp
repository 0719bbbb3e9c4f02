#include "cloud_instance.h"

constinit std::atomic<CloudApi *> cloudApi{nullptr};
