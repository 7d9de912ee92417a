#include "reader/inside/scaled_picture.h"

#include <png.h>
#include <sys/mman.h>
#include <turbojpeg.h>
#include <unistd.h>
#include <webp/decode.h>
#include <webp/encode.h>

#include <algorithm>
#include <memory>
#include <new>
#include <string_view>

#include "common/music/pictures.h"
#include "common/released_by.h"

namespace nuvio::reader {

namespace {

constexpr int kQuality = 85;
constexpr uint32_t kWhite = 0xffffff;

// The file's bytes. One that becomes shorter meanwhile ends the process.
class FileView {
  public:
    explicit FileView(const UniqueFd& file)
        : m_size(static_cast<size_t>(
              std::clamp<off_t>(lseek(file.get(), 0, SEEK_END), 0, kMaxPictureBytes + 1))),
          m_bytes(m_size == 0 ? MAP_FAILED
                              : mmap(nullptr, m_size, PROT_READ, MAP_PRIVATE, file.get(), 0)) {}
    ~FileView() {
        if (m_bytes != MAP_FAILED) {
            munmap(m_bytes, m_size);
        }
    }
    FileView(const FileView&) = delete;
    FileView& operator=(const FileView&) = delete;

    const uint8_t* bytes() const { return static_cast<const uint8_t*>(m_bytes); }
    // 0: none, or too many.
    size_t size() const { return m_bytes == MAP_FAILED || m_size > kMaxPictureBytes ? 0 : m_size; }

  private:
    const size_t m_size;
    void* const m_bytes;
};

// Pixels of 4 bytes: blue, green, red, and how much they cover.
class Pixels {
  public:
    Pixels() {
        if (WebPPictureInit(&m_picture) == 0) {
            throw std::bad_alloc();
        }
        m_picture.use_argb = 1;
    }
    ~Pixels() { WebPPictureFree(&m_picture); }
    Pixels(const Pixels&) = delete;
    Pixels& operator=(const Pixels&) = delete;

    // False where no picture has these sides.
    bool make(int64_t width, int64_t height) {
        if (width <= 0 || height <= 0 || width > WEBP_MAX_DIMENSION ||
            height > WEBP_MAX_DIMENSION) {
            return false;
        }
        m_picture.width = static_cast<int>(width);
        m_picture.height = static_cast<int>(height);
        if (WebPPictureAlloc(&m_picture) == 0) {
            throw std::bad_alloc();
        }
        return true;
    }
    int width() const { return m_picture.width; }
    int height() const { return m_picture.height; }
    int row_bytes() const { return m_picture.argb_stride * 4; }
    uint8_t* bytes() { return reinterpret_cast<uint8_t*>(m_picture.argb); }

    void shrink(int edge) {
        const int longer = std::max(width(), height());
        if (longer > edge && WebPPictureRescale(&m_picture, scaled(width(), edge, longer),
                                                scaled(height(), edge, longer)) == 0) {
            throw std::bad_alloc();
        }
    }
    void lay_on(uint32_t colour) { WebPBlendAlpha(&m_picture, colour); }

  private:
    static int scaled(int side, int edge, int longer) {
        return std::max(1, static_cast<int>(int64_t{side} * edge / longer));
    }

    WebPPicture m_picture{};
};

using Jpeg = std::unique_ptr<void, ReleasedBy<tjDestroy>>;

// The smallest of the sizes that its coefficients lend themselves to, and no smaller than asked
// for.
tjscalingfactor factor_for(int longer, int edge) {
    int count = 0;
    const tjscalingfactor* const factors = tjGetScalingFactors(&count);
    tjscalingfactor best{1, 1};
    for (int i = 0; i < count; ++i) {
        const int size = TJSCALED(longer, factors[i]);
        if (size >= edge && size < TJSCALED(longer, best)) {
            best = factors[i];
        }
    }
    return best;
}

bool read_jpeg(const FileView& file, int edge, Pixels* pixels) {
    const Jpeg decoder(tjInitDecompress());
    int width = 0;
    int height = 0;
    int subsampling = 0;
    int colours = 0;
    if (decoder == nullptr || tjDecompressHeader3(decoder.get(), file.bytes(), file.size(), &width,
                                                  &height, &subsampling, &colours) != 0) {
        return false;
    }
    const tjscalingfactor factor = factor_for(std::max(width, height), edge);
    if (!pixels->make(TJSCALED(width, factor), TJSCALED(height, factor))) {
        return false;
    }
    // Of a file with an end that is missing what there is of it is shown.
    return tjDecompress2(decoder.get(), file.bytes(), file.size(), pixels->bytes(), pixels->width(),
                         pixels->row_bytes(), pixels->height(), TJPF_BGRA, 0) == 0 ||
           tjGetErrorCode(decoder.get()) == TJERR_WARNING;
}

bool read_png(const FileView& file, int, Pixels* pixels) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    const std::unique_ptr<png_image, ReleasedBy<png_image_free>> owner(&image);
    if (png_image_begin_read_from_memory(&image, file.bytes(), file.size()) == 0 ||
        !pixels->make(image.width, image.height)) {
        return false;
    }
    image.format = PNG_FORMAT_BGRA;
    return png_image_finish_read(&image, nullptr, pixels->bytes(), pixels->row_bytes(), nullptr) !=
           0;
}

bool read_webp(const FileView& file, int, Pixels* pixels) {
    int width = 0;
    int height = 0;
    return WebPGetInfo(file.bytes(), file.size(), &width, &height) != 0 &&
           pixels->make(width, height) &&
           WebPDecodeBGRAInto(
               file.bytes(), file.size(), pixels->bytes(),
               static_cast<size_t>(pixels->row_bytes()) * static_cast<size_t>(pixels->height()),
               pixels->row_bytes()) != nullptr;
}

constexpr struct {
    std::string_view type;
    bool (*read)(const FileView& file, int edge, Pixels* pixels);
} kReadable[] = {{"image/jpeg", read_jpeg}, {"image/png", read_png}, {"image/webp", read_webp}};

}  // namespace

void scale_picture(const UniqueFd& file, uint32_t edge, char* scaled, PictureAnswer* answer) {
    const FileView view(file);
    const PictureKind* const kind = picture_kind_of(
        {reinterpret_cast<const char*>(view.bytes()), std::min(view.size(), kPictureStart)});
    const auto* const row = std::ranges::find_if(
        kReadable, [kind](const auto& each) { return kind != nullptr && each.type == kind->type; });
    const int longest = static_cast<int>(std::clamp<uint32_t>(edge, 1, WEBP_MAX_DIMENSION));
    Pixels pixels;
    if (row == std::end(kReadable) || !row->read(view, longest, &pixels)) {
        return;
    }
    pixels.shrink(longest);
    pixels.lay_on(kWhite);
    const Jpeg encoder(tjInitCompress());
    auto* to = reinterpret_cast<unsigned char*>(scaled);
    unsigned long size = kMaxPictureBytes;
    if (encoder == nullptr) {
        throw std::bad_alloc();
    }
    if (tjCompress2(encoder.get(), pixels.bytes(), pixels.width(), pixels.row_bytes(),
                    pixels.height(), TJPF_BGRX, &to, &size, TJSAMP_420, kQuality,
                    TJFLAG_NOREALLOC) == 0) {
        answer->size = size;
    }
}

}  // namespace nuvio::reader
