#include "io/exrhuffman.h"

#include <OpenEXR/ImfHuf.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace TESSERA {
namespace Private {

namespace {

constexpr int kSymbols = (1 << 16) + 1;  // every word, and the run symbol
constexpr int kLongestCode = 58;         // what the reader's tables hold
constexpr int kShortestRun = 32;         // repeats coded as a run beyond this
constexpr int kLongestRun = 255;
// Code-length table: runs of unused symbols.
constexpr int kShortZeroRun = 59, kLongZeroRun = 63;
constexpr int kShortestLongZeroRun = 2 + kLongZeroRun - kShortZeroRun;
constexpr int kLongestLongZeroRun = 255 + kShortestLongZeroRun;

// Bits out, most significant first, 32 at a time.
class BitWriter {
public:
    explicit BitWriter(uint8_t* out) : m_start(out), m_out(out) {}
    void put(int bits, uint64_t value) {
        if (bits > 32) {
            put(bits - 32, value >> 32);
            value &= 0xffffffffu;
            bits = 32;
        }
        m_pending = (m_pending << bits) | value;
        m_count += bits;
        if (m_count >= 32) {
            m_count -= 32;
            const uint32_t word = uint32_t(m_pending >> m_count);
            m_out[0] = uint8_t(word >> 24);
            m_out[1] = uint8_t(word >> 16);
            m_out[2] = uint8_t(word >> 8);
            m_out[3] = uint8_t(word);
            m_out += 4;
        }
    }
    // The last byte padded with zeros; returns the bits written.
    uint64_t finish() {
        const uint64_t bits = uint64_t(m_out - m_start) * 8 + uint64_t(m_count);
        while (m_count >= 8) {
            m_count -= 8;
            *m_out++ = uint8_t(m_pending >> m_count);
        }
        if (m_count > 0) *m_out++ = uint8_t(m_pending << (8 - m_count));
        m_count = 0;
        return bits;
    }
    uint8_t* end() const { return m_out; }

private:
    uint8_t* m_start;
    uint8_t* m_out;
    uint64_t m_pending = 0;
    int m_count = 0;
};

// Sorts keys (count << 17 | symbol) by count, least first, 11 bits a pass.
void sortByCount(std::vector<uint64_t>& keys, std::vector<uint64_t>& scratch, uint64_t maxCount) {
    scratch.resize(keys.size());
    for (int shift = 17; (maxCount << 17) >> shift; shift += 11) {
        uint32_t start[2049] = {};
        for (uint64_t k : keys) ++start[((k >> shift) & 2047) + 1];
        for (int i = 1; i <= 2048; ++i) start[i] += start[i - 1];
        for (uint64_t k : keys) scratch[start[(k >> shift) & 2047]++] = k;
        keys.swap(scratch);
    }
}

// Optimal code lengths for counts sorted least first, in place (Moffat and
// Katajainen's algorithm): first each internal node's parent, then depths.
void codeLengths(std::vector<uint64_t>& a) {
    const int64_t n = int64_t(a.size());
    a[0] += a[1];
    int64_t root = 0, leaf = 2;
    for (int64_t next = 1; next < n - 1; ++next) {
        if (leaf >= n || a[root] < a[leaf]) {
            a[next] = a[root];
            a[root++] = uint64_t(next);
        } else {
            a[next] = a[leaf++];
        }
        if (leaf >= n || (root < next && a[root] < a[leaf])) {
            a[next] += a[root];
            a[root++] = uint64_t(next);
        } else {
            a[next] += a[leaf++];
        }
    }
    a[size_t(n - 2)] = 0;
    for (int64_t next = n - 3; next >= 0; --next) a[size_t(next)] = a[a[size_t(next)]] + 1;
    int64_t available = 1, used = 0, depth = 0, next = n - 1;
    root = n - 2;
    while (available > 0) {
        while (root >= 0 && int64_t(a[size_t(root)]) == depth) {
            ++used;
            --root;
        }
        while (available > used) {
            a[size_t(next--)] = uint64_t(depth);
            --available;
        }
        available = 2 * used;
        ++depth;
        used = 0;
    }
}

// Canonical codes from lengths, as the reader rebuilds them: longer codes
// numerically lower, and within a length in the order of the symbols. Each
// entry becomes code << 6 | length.
void canonicalCodes(uint64_t* table) {
    uint64_t first[kLongestCode + 1] = {};
    for (int s = 0; s < kSymbols; ++s) ++first[table[s]];
    first[0] = 0;
    uint64_t code = 0;
    for (int length = kLongestCode; length > 0; --length) {
        const uint64_t next = (code + first[length]) >> 1;
        first[length] = code;
        code = next;
    }
    for (int s = 0; s < kSymbols; ++s)
        if (const uint64_t length = table[s]) table[s] = length | (first[length]++ << 6);
}

void writeUInt(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = uint8_t(v >> (8 * i));
}

struct Tables {
    std::vector<uint64_t> code = std::vector<uint64_t>(kSymbols);
    std::vector<uint64_t> keys, scratch;
};
thread_local Tables t_tables;

}  // namespace

uint64_t huffmanCompressBound(uint64_t count) {
    // An optimal code spends at most one bit a word beyond 16.
    return 20 + (uint64_t(kSymbols) * 6 + 7) / 8 + ((count + 1) * 17 + 7) / 8 + 16;
}

uint64_t huffmanCompress(const uint16_t* words, uint64_t count, uint8_t* out) {
    Tables& t = t_tables;
    uint64_t* code = t.code.data();
    std::fill(code, code + kSymbols, uint64_t(0));
    for (uint64_t i = 0; i < count; ++i) ++code[words[i]];
    int lowest = 0;
    while (!code[lowest]) ++lowest;
    int highest = 0xffff;
    while (!code[highest]) --highest;
    const int runSymbol = highest + 1;
    code[runSymbol] = 1;

    t.keys.clear();
    uint64_t maxCount = 0;
    for (int s = lowest; s <= runSymbol; ++s)
        if (code[s]) {
            t.keys.push_back(code[s] << 17 | uint64_t(s));
            maxCount = std::max(maxCount, code[s]);
        }
    sortByCount(t.keys, t.scratch, maxCount);
    std::vector<uint64_t>& lengths = t.scratch;
    lengths.resize(t.keys.size());
    for (size_t i = 0; i < t.keys.size(); ++i) lengths[i] = t.keys[i] >> 17;
    codeLengths(lengths);
    if (lengths[0] > uint64_t(kLongestCode))  // counts skewed past any real picture
        return uint64_t(Imf::hufCompress(words, int(count), reinterpret_cast<char*>(out)));
    std::fill(code, code + kSymbols, uint64_t(0));
    for (size_t i = 0; i < t.keys.size(); ++i) code[t.keys[i] & 0x1ffff] = lengths[i];
    canonicalCodes(code);

    // The code lengths, lowest symbol to the run symbol.
    BitWriter table(out + 20);
    for (int s = lowest; s <= runSymbol; ++s) {
        const int length = int(code[s] & 63);
        if (length == 0) {
            int zeros = 1;
            while (s < runSymbol && zeros < kLongestLongZeroRun && !(code[s + 1] & 63)) {
                ++s;
                ++zeros;
            }
            if (zeros >= kShortestLongZeroRun) {
                table.put(6, kLongZeroRun);
                table.put(8, uint64_t(zeros - kShortestLongZeroRun));
                continue;
            }
            if (zeros >= 2) {
                table.put(6, uint64_t(kShortZeroRun + zeros - 2));
                continue;
            }
        }
        table.put(6, uint64_t(length));
    }
    table.finish();
    uint8_t* data = table.end();

    // The words, runs beyond kShortestRun as the word, the run symbol and
    // the repeats.
    BitWriter bits(data);
    const uint64_t run = code[runSymbol];
    const auto send = [&](uint16_t word, int repeats) {
        const uint64_t c = code[word];
        if (repeats > kShortestRun) {
            bits.put(int(c & 63), c >> 6);
            bits.put(int(run & 63), run >> 6);
            bits.put(8, uint64_t(repeats));
        } else {
            for (int i = 0; i <= repeats; ++i) bits.put(int(c & 63), c >> 6);
        }
    };
    uint16_t current = words[0];
    int repeats = 0;
    for (uint64_t i = 1; i < count; ++i) {
        if (words[i] == current && repeats < kLongestRun) {
            ++repeats;
            continue;
        }
        send(current, repeats);
        current = words[i];
        repeats = 0;
    }
    send(current, repeats);
    const uint64_t dataBits = bits.finish();

    writeUInt(out, uint32_t(lowest));
    writeUInt(out + 4, uint32_t(runSymbol));
    writeUInt(out + 8, uint32_t(data - (out + 20)));
    writeUInt(out + 12, uint32_t(dataBits));
    writeUInt(out + 16, 0);
    return uint64_t(bits.end() - out);
}

}  // namespace Private
}  // namespace TESSERA
