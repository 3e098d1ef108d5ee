// Frame lists and numbered paths.
#include "frames.h"

#include <limits>
#include <set>
#include <stdexcept>

namespace TESSERA {

namespace {

// Reads an integer (with an optional sign) at text[pos], moving pos past it.
bool readInt(const std::string& text, size_t& pos, long long& value) {
    const size_t start = pos;
    if (pos < text.size() && (text[pos] == '-' || text[pos] == '+')) ++pos;
    const size_t digits = pos;
    while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') ++pos;
    if (pos == digits || pos - digits > 18) {
        pos = start;
        return false;
    }
    value = std::stoll(text.substr(start, pos - start));
    return true;
}

// One part of a frame list: N, A-B or A-BxS.
void appendPart(const std::string& part, std::vector<int>& frames, std::set<int>& seen) {
    const auto bad = [&](const std::string& why) {
        return std::invalid_argument("'" + part + "' is not a frame list part (" + why + ")");
    };
    size_t pos = 0;
    long long first = 0, last = 0, step = 1;
    if (!readInt(part, pos, first)) throw bad("expected N, A-B or A-BxS");
    last = first;
    if (pos < part.size() && part[pos] == '-') {
        ++pos;
        if (!readInt(part, pos, last)) throw bad("expected a last frame after '-'");
        if (pos < part.size() && part[pos] == 'x') {
            ++pos;
            if (!readInt(part, pos, step) || step < 1) throw bad("the step must be 1 or more");
        }
    }
    if (pos != part.size()) throw bad("unexpected '" + part.substr(pos) + "'");
    for (long long f : {first, last})
        if (f < std::numeric_limits<int>::min() || f > std::numeric_limits<int>::max())
            throw bad("frame numbers are 32-bit integers");
    if (last < first) throw bad("the last frame comes before the first");
    constexpr long long kMaxFrames = 1000000;
    if ((last - first) / step + frames.size() >= kMaxFrames)
        throw bad("more than a million frames");
    for (long long f = first; f <= last; f += step)
        if (seen.insert(int(f)).second) frames.push_back(int(f));
}

// A frame-number pattern at path[pos]: its length and the digits it pads to.
bool patternAt(const std::string& path, size_t pos, size_t& length, int& width) {
    if (path[pos] == '#') {
        length = path.find_first_not_of('#', pos);
        length = (length == std::string::npos ? path.size() : length) - pos;
        width = int(length);
        return true;
    }
    if (path[pos] != '%') return false;
    size_t end = pos + 1;
    width = 0;
    if (end < path.size() && path[end] == '0') {
        ++end;
        while (end < path.size() && path[end] >= '0' && path[end] <= '9' && width < 100)
            width = width * 10 + (path[end++] - '0');
    }
    if (end >= path.size() || path[end] != 'd') return false;
    length = end + 1 - pos;
    return true;
}

}  // namespace

std::vector<int> parseFrames(const std::string& text) {
    std::vector<int> frames;
    std::set<int> seen;
    size_t start = 0;
    while (true) {
        const size_t comma = text.find(',', start);
        const std::string part =
            text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        appendPart(part, frames, seen);
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return frames;
}

std::string framePath(const std::string& path, int frame) {
    std::string result;
    for (size_t pos = 0; pos < path.size();) {
        size_t length = 0;
        int width = 0;
        if (patternAt(path, pos, length, width)) {
            // Padded as printf pads "%0*d": zeros after the sign.
            const std::string digits = std::to_string(frame < 0 ? -(long long)frame : frame);
            const size_t sign = frame < 0 ? 1 : 0;
            if (sign) result += '-';
            if (size_t(width) > digits.size() + sign)
                result.append(size_t(width) - digits.size() - sign, '0');
            result += digits;
            pos += length;
        } else {
            result += path[pos++];
        }
    }
    return result;
}

bool hasFrameNumber(const std::string& path) {
    size_t length = 0;
    int width = 0;
    for (size_t pos = 0; pos < path.size(); ++pos)
        if (patternAt(path, pos, length, width)) return true;
    return false;
}

}  // namespace TESSERA
