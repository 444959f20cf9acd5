#pragma once
#include <cstdint>
#include <vector>

namespace nkrfuzz {
// The input reports the next feature-report reads return, in order.
void setHidReplies(std::vector<std::vector<uint8_t>> replies);
}
