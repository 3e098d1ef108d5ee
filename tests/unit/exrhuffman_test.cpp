// The piz Huffman coder against OpenEXR's own: its decoder gives every word
// back, and its coder, also optimal for the words' counts, makes a stream of
// the same size where no run is coded (a run's words are counted but sent as
// three codes, so codes equally good for the counts can differ there).
#include <OpenEXR/ImfHuf.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "io/exrhuffman.h"

using namespace TESSERA::Private;

namespace {

void expectRoundTrip(const std::vector<uint16_t>& words, const char* what, bool runs = false) {
    std::vector<uint8_t> ours(huffmanCompressBound(words.size()));
    const uint64_t size = huffmanCompress(words.data(), words.size(), ours.data());
    ASSERT_LE(size, ours.size()) << what;
    std::vector<uint16_t> back(words.size());
    Imf::hufUncompress(reinterpret_cast<const char*>(ours.data()), int(size), back.data(),
                       int(back.size()));
    EXPECT_EQ(back, words) << what;
    std::vector<char> theirs(ours.size() + 65536);
    const int theirSize = Imf::hufCompress(words.data(), int(words.size()), theirs.data());
    if (!runs) {
        EXPECT_EQ(size, uint64_t(theirSize)) << what;
    }
}

}  // namespace

TEST(ExrHuffman, OpenExrDecodesEveryWordAtTheSameSize) {
    expectRoundTrip({7}, "one word");
    expectRoundTrip(std::vector<uint16_t>(1000, 65535), "one value repeated past a run's 255",
                    true);
    // Repeats at the edge of run coding (32 repeats are codes, 33 a run).
    std::vector<uint16_t> runs;
    for (int repeats : {31, 32, 33, 34, 255, 256, 257})
        for (int i = 0; i <= repeats; ++i) runs.push_back(uint16_t(repeats));
    expectRoundTrip(runs, "runs", true);
    std::vector<uint16_t> every(65536);
    for (size_t i = 0; i < every.size(); ++i) every[i] = uint16_t(i * 40503u);
    expectRoundTrip(every, "every value once");
    // Counts doubling from symbol to symbol: codes up to 20 bits long.
    std::vector<uint16_t> skewed;
    for (int s = 0; s < 20; ++s)
        for (int i = 0; i < (1 << s); ++i) skewed.push_back(uint16_t(s * 3000 + (i & 1)));
    expectRoundTrip(skewed, "skewed");
    // The low words of float noise: tens of thousands of values, and unused
    // stretches in the code-length table of every length.
    std::vector<uint16_t> noise(300000);
    uint32_t state = 99;
    for (uint16_t& w : noise) {
        state = state * 1664525u + 1013904223u;
        w = uint16_t((state >> 16) % 50000 + ((state >> 8) & 1 ? 0 : 10000));
    }
    expectRoundTrip(noise, "noise");
}
