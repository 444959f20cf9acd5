// Splits a fuzzer input into length-prefixed chunks: one length byte, then
// that many bytes (fewer at the end of the input).
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

namespace nkrfuzz {
inline std::vector<std::vector<uint8_t>> splitChunks(const uint8_t* data, size_t size)
{
    std::vector<std::vector<uint8_t>> chunks;
    size_t i = 0;
    while (i < size) {
        size_t len = data[i++];
        if (len > size - i) len = size - i;
        chunks.emplace_back(data + i, data + i + len);
        i += len;
    }
    return chunks;
}
}  // namespace nkrfuzz
