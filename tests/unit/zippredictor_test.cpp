// The zip chunk predictor against the format's definition written plainly:
// every size around the vector widths, and back again.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "io/zippredictor.h"

namespace {

std::vector<uint8_t> predictedByDefinition(const std::vector<uint8_t>& raw) {
    std::vector<uint8_t> out;
    for (size_t i = 0; i < raw.size(); i += 2) out.push_back(raw[i]);
    for (size_t i = 1; i < raw.size(); i += 2) out.push_back(raw[i]);
    for (size_t j = out.size(); j-- > 1;) out[j] = uint8_t(out[j] - out[j - 1] + 128);
    return out;
}

}  // namespace

TEST(ZipPredictor, MatchesTheFormatAndUndoesItselfAtEverySize) {
    std::mt19937 random(7);
    std::vector<size_t> sizes;
    for (size_t n = 0; n <= 160; ++n) sizes.push_back(n);
    for (size_t n : {1023u, 1024u, 1025u, 65536u + 33u}) sizes.push_back(n);
    for (size_t size : sizes) {
        std::vector<uint8_t> raw(size);
        for (uint8_t& byte : raw) byte = uint8_t(random());
        std::vector<uint8_t> predicted(size, 0xAA);
        TESSERA::Private::predictZipBytes(raw.data(), size, predicted.data());
        ASSERT_EQ(predicted, predictedByDefinition(raw)) << size;
        std::vector<uint8_t> back(size, 0x55);
        TESSERA::Private::unpredictZipBytes(predicted.data(), size, back.data());
        ASSERT_EQ(back, raw) << size;
    }
}
