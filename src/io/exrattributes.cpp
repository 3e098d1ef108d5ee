#include "io/exrattributes.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <sstream>

namespace TESSERA {
namespace Private {
namespace {

void copy(exr_context_t out, int part, const exr_attribute_t& a) {
    const char* n = a.name;
    switch (a.type) {
        case EXR_ATTR_STRING:
            if (a.string) exr_attr_set_string(out, part, n, a.string->str ? a.string->str : "");
            break;
        case EXR_ATTR_STRING_VECTOR:
            if (a.stringvector) {
                std::vector<const char*> strings;
                for (int32_t i = 0; i < a.stringvector->n_strings; ++i)
                    strings.push_back(a.stringvector->strings[i].str);
                exr_attr_set_string_vector(out, part, n, int32_t(strings.size()), strings.data());
            }
            break;
        case EXR_ATTR_INT:
            exr_attr_set_int(out, part, n, a.i);
            break;
        case EXR_ATTR_FLOAT:
            exr_attr_set_float(out, part, n, a.f);
            break;
        case EXR_ATTR_DOUBLE:
            exr_attr_set_double(out, part, n, a.d);
            break;
        case EXR_ATTR_BOX2I:
            exr_attr_set_box2i(out, part, n, a.box2i);
            break;
        case EXR_ATTR_BOX2F:
            exr_attr_set_box2f(out, part, n, a.box2f);
            break;
        case EXR_ATTR_CHROMATICITIES:
            exr_attr_set_chromaticities(out, part, n, a.chromaticities);
            break;
        case EXR_ATTR_KEYCODE:
            exr_attr_set_keycode(out, part, n, a.keycode);
            break;
        case EXR_ATTR_M33F:
            exr_attr_set_m33f(out, part, n, a.m33f);
            break;
        case EXR_ATTR_M33D:
            exr_attr_set_m33d(out, part, n, a.m33d);
            break;
        case EXR_ATTR_M44F:
            exr_attr_set_m44f(out, part, n, a.m44f);
            break;
        case EXR_ATTR_M44D:
            exr_attr_set_m44d(out, part, n, a.m44d);
            break;
        case EXR_ATTR_RATIONAL:
            exr_attr_set_rational(out, part, n, a.rational);
            break;
        case EXR_ATTR_TIMECODE:
            exr_attr_set_timecode(out, part, n, a.timecode);
            break;
        case EXR_ATTR_V2I:
            exr_attr_set_v2i(out, part, n, a.v2i);
            break;
        case EXR_ATTR_V2F:
            exr_attr_set_v2f(out, part, n, a.v2f);
            break;
        case EXR_ATTR_V2D:
            exr_attr_set_v2d(out, part, n, a.v2d);
            break;
        case EXR_ATTR_V3I:
            exr_attr_set_v3i(out, part, n, a.v3i);
            break;
        case EXR_ATTR_V3F:
            exr_attr_set_v3f(out, part, n, a.v3f);
            break;
        case EXR_ATTR_V3D:
            exr_attr_set_v3d(out, part, n, a.v3d);
            break;
        default:  // previews (of other pixels), envmap flags, opaque data
            break;
    }
}

void ignore(exr_const_context_t, exr_result_t, const char*) {}

template <typename T>
std::string numbers(const T* values, int count) {
    std::ostringstream text;
    for (int i = 0; i < count; ++i) text << (i ? ", " : "") << values[i];
    return text.str();
}

std::string text(const exr_attribute_t& a) {
    switch (a.type) {
        case EXR_ATTR_STRING:
            return "\"" + std::string(a.string && a.string->str ? a.string->str : "") + "\"";
        case EXR_ATTR_STRING_VECTOR: {
            std::string list;
            for (int32_t i = 0; a.stringvector && i < a.stringvector->n_strings; ++i)
                list += (i ? ", \"" : "\"") + std::string(a.stringvector->strings[i].str) + "\"";
            return list;
        }
        case EXR_ATTR_INT:
            return std::to_string(a.i);
        case EXR_ATTR_FLOAT:
            return numbers(&a.f, 1);
        case EXR_ATTR_DOUBLE:
            return numbers(&a.d, 1);
        case EXR_ATTR_BOX2I:
            return "[" + numbers(&a.box2i->min.x, 4) + "]";
        case EXR_ATTR_BOX2F:
            return "[" + numbers(&a.box2f->min.x, 4) + "]";
        case EXR_ATTR_CHROMATICITIES:
            return "red " + numbers(&a.chromaticities->red_x, 2) + ", green " +
                   numbers(&a.chromaticities->green_x, 2) + ", blue " +
                   numbers(&a.chromaticities->blue_x, 2) + ", white " +
                   numbers(&a.chromaticities->white_x, 2);
        case EXR_ATTR_M33F:
            return "[" + numbers(a.m33f->m, 9) + "]";
        case EXR_ATTR_M33D:
            return "[" + numbers(a.m33d->m, 9) + "]";
        case EXR_ATTR_M44F:
            return "[" + numbers(a.m44f->m, 16) + "]";
        case EXR_ATTR_M44D:
            return "[" + numbers(a.m44d->m, 16) + "]";
        case EXR_ATTR_RATIONAL:
            return std::to_string(a.rational->num) + "/" + std::to_string(a.rational->denom);
        case EXR_ATTR_TIMECODE: {
            // SMPTE 12M: hours, minutes, seconds and frames in BCD.
            const uint32_t t = a.timecode->time_and_flags;
            const auto bcd = [&](int shift, uint32_t tensMask) {
                return int((t >> shift) & 15) + 10 * int((t >> (shift + 4)) & tensMask);
            };
            char code[16];
            std::snprintf(code, sizeof code, "%02d:%02d:%02d:%02d", bcd(24, 3), bcd(16, 7),
                          bcd(8, 7), bcd(0, 3));
            return code;
        }
        case EXR_ATTR_V2I:
            return numbers(&a.v2i->x, 2);
        case EXR_ATTR_V2F:
            return numbers(&a.v2f->x, 2);
        case EXR_ATTR_V2D:
            return numbers(&a.v2d->x, 2);
        case EXR_ATTR_V3I:
            return numbers(&a.v3i->x, 3);
        case EXR_ATTR_V3F:
            return numbers(&a.v3f->x, 3);
        case EXR_ATTR_V3D:
            return numbers(&a.v3d->x, 3);
        default:  // keycodes, previews, envmap flags, opaque data: their type
            return std::string("(") + (a.type_name ? a.type_name : "unknown") + ")";
    }
}

}  // namespace

std::vector<std::vector<std::pair<std::string, std::string>>> exrAttributeTexts(
    const std::string& path) {
    std::vector<std::vector<std::pair<std::string, std::string>>> parts;
    exr_context_t file = nullptr;
    exr_context_initializer_t init = EXR_DEFAULT_CONTEXT_INITIALIZER;
    init.error_handler_fn = &ignore;
    if (exr_start_read(&file, path.c_str(), &init) != EXR_ERR_SUCCESS) return parts;
    int count = 0;
    exr_get_count(file, &count);
    for (int part = 0; part < count; ++part) {
        std::vector<std::pair<std::string, std::string>>& list = parts.emplace_back();
        int32_t attributes = 0;
        exr_get_attribute_count(file, part, &attributes);
        for (int32_t i = 0; i < attributes; ++i) {
            const exr_attribute_t* a = nullptr;
            if (exr_get_attribute_by_index(file, part, EXR_ATTR_LIST_FILE_ORDER, i, &a) ==
                    EXR_ERR_SUCCESS &&
                a && a->name && !isExrLayoutAttribute(a->name))
                list.emplace_back(a->name, text(*a));
        }
    }
    exr_finish(&file);
    return parts;
}

bool isExrLayoutAttribute(const std::string& name) {
    static const char* const layout[] = {"channels",      "compression", "dataWindow",
                                         "displayWindow", "lineOrder",   "tiles",
                                         "type",          "name",        "view",
                                         "multiView",     "chunkCount",  "maxSamplesPerPixel"};
    for (const char* l : layout)
        if (name == l) return true;
    return false;
}

void copyExrAttributes(exr_context_t out, int part, const std::string& from) {
    if (from.empty()) return;
    exr_context_t source = nullptr;
    exr_context_initializer_t init = EXR_DEFAULT_CONTEXT_INITIALIZER;
    init.error_handler_fn = &ignore;  // not EXR, or gone: nothing to carry over
    if (exr_start_read(&source, from.c_str(), &init) != EXR_ERR_SUCCESS) return;
    int32_t count = 0;
    exr_get_attribute_count(source, 0, &count);
    for (int32_t i = 0; i < count; ++i) {
        const exr_attribute_t* a = nullptr;
        if (exr_get_attribute_by_index(source, 0, EXR_ATTR_LIST_FILE_ORDER, i, &a) ==
                EXR_ERR_SUCCESS &&
            a && a->name && !isExrLayoutAttribute(a->name))
            copy(out, part, *a);
    }
    exr_finish(&source);
}

std::string setExrAttributes(exr_context_t out, int part,
                             const std::vector<FileAttribute>& attributes) {
    for (const FileAttribute& a : attributes) {
        exr_result_t r;
        if (!a.isNumber)
            r = exr_attr_set_string(out, part, a.name.c_str(), a.text.c_str());
        else if (a.number == std::floor(a.number) &&
                 std::fabs(a.number) <= double(std::numeric_limits<int32_t>::max()))
            r = exr_attr_set_int(out, part, a.name.c_str(), int32_t(a.number));
        else
            r = exr_attr_set_float(out, part, a.name.c_str(), float(a.number));
        // An attribute the source had with another type keeps that type.
        if (r == EXR_ERR_ATTR_TYPE_MISMATCH && a.isNumber)
            r = exr_attr_set_double(out, part, a.name.c_str(), a.number);
        if (r == EXR_ERR_ATTR_TYPE_MISMATCH && a.isNumber)
            r = exr_attr_set_float(out, part, a.name.c_str(), float(a.number));
        if (r != EXR_ERR_SUCCESS)
            return "attribute '" + a.name + "': " + exr_get_default_error_message(r);
    }
    return std::string();
}

}  // namespace Private
}  // namespace TESSERA
