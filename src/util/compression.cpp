// SPDX-License-Identifier: Apache-2.0
#include "util/compression.h"

#include <zlib.h>

#include <algorithm>
#include <limits>

#include "util/log.h"

namespace TelvoradUtil {

namespace {

using telvora::kLogDebug;
using telvora::kLogError;

constexpr int kGzipWindowBits = 31;  // 16 more than for zlib ask for a gzip header and trailer

constexpr const char* kUnknown = "Unknown error code.";
constexpr const char* kVersionMismatch =
    "The version of zlib.h and the version of the library linked do not match.";

const char* initialisationErrorText(int code) {
    switch (code) {
        case Z_STREAM_ERROR:
            return "Invalid parameter passed in to function.";
        case Z_MEM_ERROR:
            return "Insufficient memory.";
        case Z_VERSION_ERROR:
            return kVersionMismatch;
        default:
            return kUnknown;
    }
}

const char* deflateErrorText(int code) {
    switch (code) {
        case Z_ERRNO:
            return "Error occured while reading file.";
        case Z_STREAM_ERROR:
            return "The stream state was inconsistent (e.g., next_in or next_out was NULL).";
        case Z_DATA_ERROR:
            return "The deflate data was invalid or incomplete.";
        case Z_MEM_ERROR:
            return "Memory could not be allocated for processing.";
        case Z_BUF_ERROR:
            return "Ran out of output buffer for writing compressed bytes.";
        case Z_VERSION_ERROR:
            return kVersionMismatch;
        default:
            return kUnknown;
    }
}

const char* messageOf(const z_stream& stream) {
    return stream.msg != nullptr ? stream.msg : "";
}

// Deflates the stream's whole input into `output`. Returns the result of the last deflate(). Most messages
// shrink to less than an eighth: room for the worst case would cost more than the compression's result.
int deflateWhole(z_stream& stream, std::string& output) {
    constexpr size_t kLeast = 64;
    int result = Z_OK;
    while (result == Z_OK) {
        output.resize(std::max(2 * output.size(), stream.avail_in / 8 + kLeast));
        stream.next_out = reinterpret_cast<Bytef*>(output.data()) + stream.total_out;
        stream.avail_out = static_cast<uInt>(output.size() - stream.total_out);
        result = deflate(&stream, Z_FINISH);
    }
    return result;
}

// zlib's state for one format, 256 KB, which each thread keeps from call to call: mapping, zeroing and
// unmapping this memory costs several times the compression of a small message.
class DeflateState {
  public:
    explicit DeflateState(int windowBits) : windowBits_(windowBits) {}
    ~DeflateState() {
        if (initialised_) deflateEnd(&stream);
    }
    DeflateState(const DeflateState&) = delete;
    DeflateState& operator=(const DeflateState&) = delete;

    // Prepares the stream for a new input. Returns a zlib result.
    int begin() {
        if (initialised_) return deflateReset(&stream);
        const int result =
            deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, windowBits_, 8, Z_DEFAULT_STRATEGY);
        initialised_ = result == Z_OK;
        return result;
    }

    z_stream stream{};

  private:
    const int windowBits_;
    bool initialised_ = false;
};

}  // namespace

std::optional<std::string> compressDataWithZlibOrGzip(bool gzip, std::string_view input) {
    if (input.empty()) {
        TELVORA_LOG(kLogError, "compressDataWithZlibOrGzip: Cannot compress empty NSData");
        return std::nullopt;
    }
    thread_local DeflateState gzipState(kGzipWindowBits);
    thread_local DeflateState zlibState(15);
    DeflateState& state = gzip ? gzipState : zlibState;
    z_stream& stream = state.stream;
    const bool tooLong = input.size() > std::numeric_limits<uInt>::max() / 2;
    int result = tooLong ? Z_MEM_ERROR : state.begin();
    if (result != Z_OK) {
        TELVORA_LOG(kLogError, "compressDataWithZlibOrGzip: deflateInit2() Error: \"%s\" Message: \"%s\"",
                    initialisationErrorText(result), messageOf(stream));
        return std::nullopt;
    }

    // zlib does not write to its input; only old declarations of the member lack the const.
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(input.data()));
    stream.avail_in = static_cast<uInt>(input.size());
    std::string output;
    result = deflateWhole(stream, output);
    if (result != Z_STREAM_END) {
        TELVORA_LOG(
            kLogError,
            "compressDataWithZlibOrGzip: zlib error while attempting compression: \"%s\" Message: \"%s\"",
            deflateErrorText(result), messageOf(stream));
        return std::nullopt;
    }
    output.resize(stream.total_out);
    output.shrink_to_fit();  // it may wait for a server
    TELVORA_LOG(kLogDebug, "compressDataWithZlibOrGzip: Compressed file from %u to %u",
                static_cast<unsigned>(input.size()), static_cast<unsigned>(output.size()));
    return output;
}

std::optional<std::string> gzipDeflate(std::string_view input) {
    return compressDataWithZlibOrGzip(true, input);
}

std::optional<std::string> gzipInflate(std::string_view stream, size_t maxBytes) {
    z_stream state{};
    state.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(stream.data()));
    state.avail_in = static_cast<uInt>(stream.size());
    if (inflateInit2(&state, kGzipWindowBits) != Z_OK) return std::nullopt;
    std::string content;
    int result = Z_OK;
    while (result == Z_OK) {
        content.resize(std::min(maxBytes, std::max<size_t>(2 * content.size(), size_t{64} << 10)));
        state.next_out = reinterpret_cast<Bytef*>(content.data()) + state.total_out;
        state.avail_out = static_cast<uInt>(content.size() - state.total_out);
        result = inflate(&state, Z_NO_FLUSH);
    }
    content.resize(state.total_out);
    inflateEnd(&state);
    if (result != Z_STREAM_END || state.avail_in != 0) return std::nullopt;
    return content;
}

}  // namespace TelvoradUtil
