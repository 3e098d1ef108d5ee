// A resizable set of bits in 32-bit words.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace TESSERA {
namespace Private {

class DynamicBitSet {
public:
    static constexpr size_t npos = static_cast<size_t>(-1);

    size_t size() const { return m_bits; }
    // Bits beyond the old size are cleared.
    void resize(size_t bits) {
        m_words.resize((bits + 31) / 32, 0);
        if (bits % 32 && !m_words.empty()) m_words.back() &= (uint32_t(1) << (bits % 32)) - 1;
        m_bits = bits;
    }
    void set(size_t i) { m_words[i / 32] |= uint32_t(1) << (i % 32); }
    bool test(size_t i) const { return (m_words[i / 32] >> (i % 32)) & 1u; }
    // The first set bit at or after `from`, or npos.
    size_t findFrom(size_t from) const {
        for (size_t i = from; i < m_bits; ++i)
            if (test(i)) return i;
        return npos;
    }
    size_t findFirst() const { return findFrom(0); }
    DynamicBitSet& operator|=(const DynamicBitSet& o) {
        for (size_t w = 0; w < m_words.size() && w < o.m_words.size(); ++w)
            m_words[w] |= o.m_words[w];
        return *this;
    }

private:
    std::vector<uint32_t> m_words;
    size_t m_bits = 0;
};

}  // namespace Private
}  // namespace TESSERA
