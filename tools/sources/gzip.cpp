#include "sources/source.h"

#include <stdexcept>

#if SOURCES_READ_GZIP
#include <zlib.h>

namespace sources {
namespace {

constexpr int GZIP_ONLY = 16 + MAX_WBITS;
constexpr size_t PIECE = 262'144;

/** One decompression, over all members of the data. */
class Inflater {
  public:
    explicit Inflater(std::span<const U8_t> compressed) {
        // The library's interface is older than const.
        stream_.next_in = const_cast<Bytef*>(compressed.data());
        stream_.avail_in = static_cast<uInt>(compressed.size());
        if (inflateInit2(&stream_, GZIP_ONLY) != Z_OK) {
            throw std::bad_alloc();
        }
    }
    ~Inflater() { inflateEnd(&stream_); }
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;

    /** Appends what comes next. @return whether more may come */
    bool take(Bytes& plain);

    const std::optional<std::string>& problem() const { return problem_; }

  private:
    bool endMember();

    z_stream stream_{};
    std::optional<std::string> problem_;
};

bool Inflater::endMember() {
    // gzip, too, passes over what follows and is none.
    bool another = stream_.avail_in > 1 && stream_.next_in[0] == 0x1F && stream_.next_in[1] == 0x8B;
    return another && inflateReset(&stream_) == Z_OK;
}

bool Inflater::take(Bytes& plain) {
    size_t before = plain.size();
    plain.resize(before + PIECE);
    stream_.next_out = plain.data() + before;
    stream_.avail_out = PIECE;
    int result = inflate(&stream_, Z_NO_FLUSH);
    plain.resize(plain.size() - stream_.avail_out);
    if (result == Z_STREAM_END) {
        return endMember();
    }
    if (result == Z_BUF_ERROR ||
        (result == Z_OK && stream_.avail_in == 0 && stream_.avail_out != 0)) {
        problem_ = "the compressed data is cut off";
    } else if (result != Z_OK) {
        problem_ = "the compressed data is damaged";
    }
    return !problem_;
}

} // namespace

Bytes decompress(std::span<const U8_t> compressed, size_t most,
                 std::optional<std::string>* problem) {
    Inflater inflater(compressed);
    Bytes plain;
    while (inflater.take(plain) && plain.size() <= most) {
    }
    if (plain.size() > most) {
        throw std::runtime_error("more than " + std::to_string(most) + " bytes, decompressed");
    }
    *problem = inflater.problem();
    return plain;
}

} // namespace sources

#else

namespace sources {

Bytes decompress(std::span<const U8_t> /*compressed*/, size_t /*most*/,
                 std::optional<std::string>* /*problem*/) {
    throw std::runtime_error("compressed; this program, built for the board, does not read that");
}

} // namespace sources

#endif
