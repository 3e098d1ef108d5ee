#include "expressionmath/noise.h"

#include <cmath>

namespace Orrery3 {
namespace Expressionmath {
namespace v3 {
namespace {

// Ken Perlin's reference permutation, repeated.
constexpr uint8_t kPermutation[256] = {
    151, 160, 137, 91,  90,  15,  131, 13,  201, 95,  96,  53,  194, 233, 7,   225, 140, 36,  103,
    30,  69,  142, 8,   99,  37,  240, 21,  10,  23,  190, 6,   148, 247, 120, 234, 75,  0,   26,
    197, 62,  94,  252, 219, 203, 117, 35,  11,  32,  57,  177, 33,  88,  237, 149, 56,  87,  174,
    20,  125, 136, 171, 168, 68,  175, 74,  165, 71,  134, 139, 48,  27,  166, 77,  146, 158, 231,
    83,  111, 229, 122, 60,  211, 133, 230, 220, 105, 92,  41,  55,  46,  245, 40,  244, 102, 143,
    54,  65,  25,  63,  161, 1,   216, 80,  73,  209, 76,  132, 187, 208, 89,  18,  169, 200, 196,
    135, 130, 116, 188, 159, 86,  164, 100, 109, 198, 173, 186, 3,   64,  52,  217, 226, 250, 124,
    123, 5,   202, 38,  147, 118, 126, 255, 82,  85,  212, 207, 206, 59,  227, 47,  16,  58,  17,
    182, 189, 28,  42,  223, 183, 170, 213, 119, 248, 152, 2,   44,  154, 163, 70,  221, 153, 101,
    155, 167, 43,  172, 9,   129, 22,  39,  253, 19,  98,  108, 110, 79,  113, 224, 232, 178, 185,
    112, 104, 218, 246, 97,  228, 251, 34,  242, 193, 238, 210, 144, 12,  191, 179, 162, 241, 81,
    51,  145, 235, 249, 14,  239, 107, 49,  192, 214, 31,  181, 199, 106, 157, 184, 84,  204, 176,
    115, 121, 50,  45,  127, 4,   150, 254, 138, 236, 205, 93,  222, 114, 67,  29,  24,  72,  243,
    141, 128, 195, 78,  66,  215, 61,  156, 180};

inline int perm(int i) {
    return kPermutation[i & 255];
}
inline float fade(float t) {
    return t * t * t * (t * (t * 6 - 15) + 10);
}
inline float lerp(float t, float a, float b) {
    return a + t * (b - a);
}
inline float grad(int hash, float x, float y, float z) {
    const int h = hash & 15;
    const float u = h < 8 ? x : y, v = h < 4 ? y : (h == 12 || h == 14 ? x : z);
    return ((h & 1) ? -u : u) + ((h & 2) ? -v : v);
}

}  // namespace

float snoise(float x, float y, float z) {
    const float fx = std::floor(x), fy = std::floor(y), fz = std::floor(z);
    const int X = static_cast<int>(fx) & 255, Y = static_cast<int>(fy) & 255,
              Z = static_cast<int>(fz) & 255;
    x -= fx, y -= fy, z -= fz;
    const float u = fade(x), v = fade(y), w = fade(z);
    const int A = perm(X) + Y, AA = perm(A) + Z, AB = perm(A + 1) + Z;
    const int B = perm(X + 1) + Y, BA = perm(B) + Z, BB = perm(B + 1) + Z;
    const float value = lerp(
        w,
        lerp(v, lerp(u, grad(perm(AA), x, y, z), grad(perm(BA), x - 1, y, z)),
             lerp(u, grad(perm(AB), x, y - 1, z), grad(perm(BB), x - 1, y - 1, z))),
        lerp(
            v, lerp(u, grad(perm(AA + 1), x, y, z - 1), grad(perm(BA + 1), x - 1, y, z - 1)),
            lerp(u, grad(perm(AB + 1), x, y - 1, z - 1), grad(perm(BB + 1), x - 1, y - 1, z - 1))));
    return std::fmax(-1.0f, std::fmin(1.0f, value));
}

float noise(float x, float y, float z) {
    return 0.5f + 0.5f * snoise(x, y, z);
}

float randval(int64_t x, int64_t y, uint32_t seed) {
    // SplitMix64 over the three inputs.
    uint64_t h = static_cast<uint64_t>(x) * 0x9E3779B97F4A7C15ull ^
                 (static_cast<uint64_t>(y) + 0x632BE59BD9B4E019ull) * 0xC2B2AE3D27D4EB4Full ^
                 (uint64_t(seed) << 32);
    h ^= h >> 30;
    h *= 0xBF58476D1CE4E5B9ull;
    h ^= h >> 27;
    h *= 0x94D049BB133111EBull;
    h ^= h >> 31;
    return static_cast<float>(h >> 40) / 16777216.0f;  // 24 bits: exact in a float, below 1
}

}  // namespace v3
}  // namespace Expressionmath
}  // namespace Orrery3
