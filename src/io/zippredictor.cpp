#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "io/zippredictor.cpp"
#include <hwy/foreach_target.h>  // NOLINT: must come before highway.h

#include <hwy/highway.h>

#include "io/zippredictor.h"

HWY_BEFORE_NAMESPACE();
namespace TESSERA {
namespace Private {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

void PredictBytes(const uint8_t* raw, size_t size, uint8_t* out) {
    const hn::ScalableTag<uint8_t> d;
    const size_t N = hn::Lanes(d);
    const size_t pairs = size / 2;
    uint8_t* low = out;
    uint8_t* high = out + (size + 1) / 2;
    size_t i = 0;
    for (; i + N <= pairs; i += N) {
        hn::Vec<decltype(d)> even, odd;
        hn::LoadInterleaved2(d, raw + 2 * i, even, odd);
        hn::StoreU(even, d, low + i);
        hn::StoreU(odd, d, high + i);
    }
    for (; i < pairs; ++i) {
        low[i] = raw[2 * i];
        high[i] = raw[2 * i + 1];
    }
    if (size % 2) low[pairs] = raw[size - 1];
    // From the end, so that each byte is still there when the one after it
    // takes its difference.
    const auto bias = hn::Set(d, uint8_t(128));
    size_t j = size;
    for (; j >= N + 1; j -= N)
        hn::StoreU(hn::Add(hn::Sub(hn::LoadU(d, out + j - N), hn::LoadU(d, out + j - N - 1)), bias),
                   d, out + j - N);
    for (; j > 1; --j) out[j - 1] = uint8_t(out[j - 1] - out[j - 2] + 128);
}

void UnpredictBytes(uint8_t* predicted, size_t size, uint8_t* raw) {
    if (size == 0) return;
    // The running sum within each 16 bytes by shifted adds, then the sum
    // of the bytes before them added to all.
    size_t j = 1;
#if HWY_TARGET != HWY_SCALAR  // which has no lanes to shift
    const hn::CappedTag<uint8_t, 16> b;
    const auto bias = hn::Set(b, uint8_t(128));
    for (; j + 16 <= size; j += 16) {
        auto v = hn::Sub(hn::LoadU(b, predicted + j), bias);
        v = hn::Add(v, hn::ShiftLeftLanes<1>(b, v));
        v = hn::Add(v, hn::ShiftLeftLanes<2>(b, v));
        v = hn::Add(v, hn::ShiftLeftLanes<4>(b, v));
        v = hn::Add(v, hn::ShiftLeftLanes<8>(b, v));
        hn::StoreU(hn::Add(v, hn::Set(b, predicted[j - 1])), b, predicted + j);
    }
#endif
    for (; j < size; ++j) predicted[j] = uint8_t(predicted[j - 1] + predicted[j] - 128);

    const hn::ScalableTag<uint8_t> d;
    const size_t N = hn::Lanes(d);
    const size_t pairs = size / 2;
    const uint8_t* low = predicted;
    const uint8_t* high = predicted + (size + 1) / 2;
    size_t i = 0;
    for (; i + N <= pairs; i += N)
        hn::StoreInterleaved2(hn::LoadU(d, low + i), hn::LoadU(d, high + i), d, raw + 2 * i);
    for (; i < pairs; ++i) {
        raw[2 * i] = low[i];
        raw[2 * i + 1] = high[i];
    }
    if (size % 2) raw[size - 1] = low[pairs];
}

}  // namespace HWY_NAMESPACE
}  // namespace Private
}  // namespace TESSERA
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace TESSERA {
namespace Private {

HWY_EXPORT(PredictBytes);
HWY_EXPORT(UnpredictBytes);

void predictZipBytes(const uint8_t* raw, size_t size, uint8_t* out) {
    HWY_DYNAMIC_DISPATCH(PredictBytes)(raw, size, out);
}

void unpredictZipBytes(uint8_t* predicted, size_t size, uint8_t* raw) {
    HWY_DYNAMIC_DISPATCH(UnpredictBytes)(predicted, size, raw);
}

}  // namespace Private
}  // namespace TESSERA
#endif
