// Finding and loading the OpenImageIO module: beside the shared library
// that holds this code, installed or built. Only the static library, which
// never leaves the build, also looks where the build put the module.
#include <sys/stat.h>

#include <dlfcn.h>

#include <atomic>
#include <filesystem>
#include <mutex>

#include "exceptions.h"
#include "io/exrattributes.h"
#include "io/imagefiles.h"

namespace TESSERA {
namespace Private {

namespace {

constexpr const char* kModuleName = "libtessera_oiio.so";
std::atomic<bool> g_renderThreads{false};
std::atomic<const ImageFormatModule*> g_loaded{nullptr};

std::vector<std::string> candidates() {
    std::vector<std::string> paths;
    Dl_info self{};
    if (dladdr(reinterpret_cast<void*>(&imageFormatModule), &self) && self.dli_fname)
        paths.push_back(
            (std::filesystem::path(self.dli_fname).parent_path() / kModuleName).string());
    if (const char* built = formatModuleBuildDirectory())
        paths.push_back(std::string(built) + "/" + kModuleName);
    return paths;
}

}  // namespace

const ImageFormatModule* imageFormatModule(std::string& error) {
    static std::once_flag once;
    static const ImageFormatModule* module = nullptr;
    static std::string failure;
    std::call_once(once, [] {
        std::string tried;
        for (const std::string& path : candidates()) {
            if (!std::filesystem::exists(path)) {
                tried += (tried.empty() ? "" : ", ") + path;
                continue;
            }
            // Kept for the life of the process: readers and writers of it
            // may live until the end.
            void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
            if (!handle) {
                failure = std::string("cannot load ") + path + ": " + dlerror();
                return;
            }
            auto entry = reinterpret_cast<const ImageFormatModule* (*)()>(
                dlsym(handle, "tessera_image_format_module"));
            if (!entry) {
                failure = path + " is not Tessera's image format module";
                return;
            }
            module = entry();
            g_loaded = module;
            if (g_renderThreads) module->useRenderThreads();
            return;
        }
        failure = std::string("the image format module ") + kModuleName +
                  " is missing (looked for " + tried + ")";
    });
    error = failure;
    return module;
}

void useRenderThreadsInModule() {
    g_renderThreads = true;
    if (const ImageFormatModule* module = g_loaded) module->useRenderThreads();
}

namespace {

// A reader of the module, with the views of the EXR header that the core
// library read (OpenImageIO does not report them).
class ReaderWithViews final : public ImageReader {
public:
    ReaderWithViews(std::unique_ptr<ImageReader> reader, const ImageFileInfo& header)
        : m_reader(std::move(reader)), m_info(m_reader->info()) {
        m_info.views = header.views;
        m_info.partViews = header.partViews;
    }
    const ImageFileInfo& info() const override { return m_info; }
    std::string read(const UTIL::Rect& area, const PixelLayout& layout, uint8_t* first,
                     int64_t lineBytes) override {
        return m_reader->read(area, layout, first, lineBytes);
    }

private:
    std::unique_ptr<ImageReader> m_reader;
    ImageFileInfo m_info;
};

}  // namespace

// A device or a pipe would be read forever (/dev/zero) or block: the
// reason such a path is refused, else empty.
std::string notARegularFile(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
        return S_ISDIR(status.st_mode) ? "it is a folder" : "it is not a regular file";
    return {};
}

std::unique_ptr<ImageReader> openImageReader(const std::string& path, int subimage, int level,
                                             std::string& error) {
    error = notARegularFile(path);
    if (!error.empty()) return nullptr;
    ImageFileInfo header;
    if (auto exr = openExrReader(path, subimage, level, error, &header)) return exr;
    if (!error.empty()) return nullptr;
    const ImageFormatModule* module = imageFormatModule(error);
    std::unique_ptr<ImageReader> reader =
        module ? module->openReader(path, subimage, level, error) : nullptr;
    if (reader && (!header.views.empty() || !header.partViews.empty()))
        return std::make_unique<ReaderWithViews>(std::move(reader), header);
    return reader;
}

}  // namespace Private

FileDescription describeFile(const std::string& path) {
    const auto fail = [&](const std::string& why) {
        throw RenderTaskRenderingException("describeFile", "cannot read '" + path + "': " + why,
                                           -1);
    };
    std::string error = Private::notARegularFile(path);
    if (!error.empty()) fail(error);
    // OpenEXR's core library first: it checks what the header declares
    // before any reader trusts it, and knows the views.
    Private::ImageFileInfo header;
    const auto exr = Private::openExrReader(path, 0, 0, error, &header);
    if (!error.empty()) fail(error);
    const Private::ImageFileInfo& views = exr ? exr->info() : header;
    const Private::ImageFormatModule* module = Private::imageFormatModule(error);
    if (!module) fail(error);
    FileDescription file = module->describe(path, error);
    if (!error.empty()) fail(error);
    file.views = views.views;
    // An EXR's attributes under the file's own names (OpenImageIO renames
    // some, "owner" to "Copyright", and adds its own).
    const auto exrAttributes = Private::exrAttributeTexts(path);
    if (exrAttributes.size() == file.parts.size())
        for (size_t p = 0; p < file.parts.size(); ++p) file.parts[p].attributes = exrAttributes[p];
    if (views.partViews.size() == file.parts.size())
        for (size_t p = 0; p < file.parts.size(); ++p)
            if (file.parts[p].view.empty()) file.parts[p].view = views.partViews[p];
    return file;
}

}  // namespace TESSERA
